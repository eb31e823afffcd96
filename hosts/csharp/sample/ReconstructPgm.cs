// Sample: reconstructs PGM files and writes the result images as PGM and PPM files.
//
//   ReconstructPgm FOLDER IMAGE.pgm IMAGE.pgm IMAGE.pgm...
using System;
using System.Collections.Generic;
using System.IO;
using System.Text;
using Velostrix;

static class ReconstructPgm
{
    static int Main(string[] arguments)
    {
        if (arguments.Length < 4)
        {
            Console.Error.WriteLine("usage: ReconstructPgm FOLDER IMAGE.pgm IMAGE.pgm IMAGE.pgm...");
            return 2;
        }
        try
        {
            Run(arguments[0], new ArraySegment<string>(arguments, 1, arguments.Length - 1));
            return 0;
        }
        catch (Exception error) when (error is VelostrixException || error is IOException ||
                                      error is InvalidDataException ||
                                      error is UnauthorizedAccessException)
        {
            Console.Error.WriteLine("ReconstructPgm: " + error.Message);
            return 1;
        }
        catch (DllNotFoundException)
        {
            Console.Error.WriteLine("ReconstructPgm: the libraries VelostrixUncalibration and " +
                "velostrix_mat are not found; install them or add their folder to LD_LIBRARY_PATH");
            return 1;
        }
    }

    static void Run(string folder, IEnumerable<string> paths)
    {
        var images = new List<byte[]>();
        int width = 0, height = 0;
        foreach (string path in paths)
        {
            images.Add(ReadPgm(path, out int w, out int h));
            if (images.Count > 1 && (w != width || h != height))
            {
                throw new InvalidDataException(
                    $"{path} has {w} x {h} pixels, the images before it {width} x {height}");
            }
            width = w;
            height = h;
        }

        using (var tool = new VelostrixTool())
        {
            // On a line: choose once, keep the parameters, and reconstruct every part with them.
            VelostrixParameters parameters =
                AutoGain.Choose(tool, images, width, height, new VelostrixParameters());
            VelostrixResults results = tool.Reconstruct(images, width, height, parameters);

            Directory.CreateDirectory(folder);
            foreach (VelostrixOutput output in results.Made)
            {
                VelostrixImage image = results[output];
                string extension = image.Channels == 3 ? ".ppm" : ".pgm";
                string file = Path.Combine(folder, output.ToString().ToLowerInvariant() + extension);
                WritePnm(file, image, isWord: output == VelostrixOutput.Height);
                Console.WriteLine(file);
            }
        }
    }

    static byte[] ReadPgm(string path, out int width, out int height)
    {
        byte[] file = File.ReadAllBytes(path);
        int at = 0;
        string magic = NextWord(file, ref at);
        if (magic != "P5" || !int.TryParse(NextWord(file, ref at), out width) ||
            !int.TryParse(NextWord(file, ref at), out height) || NextWord(file, ref at) != "255" ||
            width < 1 || height < 1 || file.Length - at < (long)width * height)
        {
            throw new InvalidDataException($"{path} is not an 8-bit PGM file (P5)");
        }
        var pixels = new byte[width * height];
        Array.Copy(file, at, pixels, 0, pixels.Length);
        return pixels;
    }

    // The next word of the header; moves `at` behind the one blank that ends it.
    static string NextWord(byte[] file, ref int at)
    {
        var word = new StringBuilder();
        for (bool isComment = false; at < file.Length; ++at)
        {
            char letter = (char)file[at];
            if (isComment || letter == '#')
            {
                isComment = letter != '\n';
            }
            else if (!char.IsWhiteSpace(letter))
            {
                word.Append(letter);
            }
            else if (word.Length > 0)
            {
                ++at;
                break;
            }
        }
        return word.ToString();
    }

    static void WritePnm(string path, VelostrixImage image, bool isWord)
    {
        using (FileStream file = File.Create(path))
        {
            string magic = image.Channels == 3 ? "P6" : "P5";
            byte[] header = Encoding.ASCII.GetBytes(
                $"{magic}\n{image.Width} {image.Height}\n{(isWord ? 65535 : 255)}\n");
            file.Write(header, 0, header.Length);
            if (isWord)
            {
                foreach (ushort level in image.Levels())  // high byte first
                {
                    file.WriteByte((byte)(level >> 8));
                    file.WriteByte((byte)level);
                }
                return;
            }
            byte[] pixels = (byte[])image.Bytes().Clone();
            if (image.Channels == 3)
            {
                // Channel 0 is the blue one, as OpenCV writes it.
                for (int k = 0; k < pixels.Length; k += 3)
                {
                    byte blue = pixels[k];
                    pixels[k] = pixels[k + 2];
                    pixels[k + 2] = blue;
                }
            }
            file.Write(pixels, 0, pixels.Length);
        }
    }
}
