// Sample: reconstructs image files (PNG, TIFF, BMP, JPEG) and writes the result images as PNG files,
// the height as a 16-bit PGM file, and the recipe.
//
//   Reconstruct FOLDER IMAGE IMAGE IMAGE...
using System;
using System.Collections.Generic;
using System.Drawing;
using System.Drawing.Imaging;
using System.IO;
using System.Linq;
using System.Text;
using Velostrix;

static class Reconstruct
{
    static int Main(string[] arguments)
    {
        if (arguments.Length < 4)
        {
            Console.Error.WriteLine("usage: Reconstruct FOLDER IMAGE IMAGE IMAGE...");
            return 2;
        }
        try
        {
            Run(arguments[0], arguments.Skip(1).ToList());
            return 0;
        }
        catch (DllNotFoundException)
        {
            Console.Error.WriteLine("Reconstruct: a native library is not found: velostrix_host, or " +
                "gdiplus for the files; install it or add its folder to LD_LIBRARY_PATH");
        }
        catch (Exception error) when (error is VelostrixException || error is IOException ||
                                      error is ArgumentException || error is OutOfMemoryException ||
                                      error is UnauthorizedAccessException)
        {
            Console.Error.WriteLine("Reconstruct: " + error.Message);
        }
        return 1;
    }

    static void Run(string folder, List<string> paths)
    {
        List<VelostrixImage> images = paths.Select(Read).ToList();
        using (var tool = new VelostrixTool())
        {
            var parameters = new VelostrixParameters();
            foreach (string warning in tool.Diagnose(images, parameters, paths).Warnings)
            {
                Console.Error.WriteLine("Reconstruct: " + warning);
            }
            // In production: choose once, keep the recipe, and reconstruct every part with it.
            parameters = tool.ChooseGains(images, parameters);
            VelostrixResults results = tool.Reconstruct(images, parameters);

            Directory.CreateDirectory(folder);
            foreach (VelostrixOutput output in results.Made)
            {
                string stem = Path.Combine(folder, output.ToString().ToLowerInvariant());
                if (output == VelostrixOutput.Height)
                {
                    WritePgm(stem + ".pgm", results[output]);
                }
                else
                {
                    using (Bitmap bitmap = results[output].ToBitmap())
                    {
                        bitmap.Save(stem + ".png", ImageFormat.Png);
                    }
                }
            }
            parameters.Save(Path.Combine(folder, "recipe.json"));
        }
        Console.WriteLine("results in " + folder);
    }

    static VelostrixImage Read(string path)
    {
        try
        {
            using (FileStream file = File.OpenRead(path))
            using (var bitmap = new Bitmap(file))
            {
                return bitmap.ToImage();
            }
        }
        catch (Exception error) when (error is ArgumentException || error is OutOfMemoryException)
        {
            // Files that are not images throw either of these.
            throw new ArgumentException($"{path}: not read as a grey image: {error.Message}");
        }
    }

    // 16 bits, high byte first; System.Drawing writes no such files.
    static void WritePgm(string path, VelostrixImage image)
    {
        byte[] header = Encoding.ASCII.GetBytes($"P5\n{image.Width} {image.Height}\n65535\n");
        File.WriteAllBytes(path, header.Concat(image.Levels().SelectMany(
            level => new[] { (byte)(level >> 8), (byte)level })).ToArray());
    }
}
