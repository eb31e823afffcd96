// Reconstructs raw images by every run: SameBytesHost FOLDER WIDTH HEIGHT COUNT.
using System;
using System.Collections.Generic;
using System.IO;
using Velostrix;

static class SameBytesHost
{
    static VelostrixParameters Tuned()
    {
        return new VelostrixParameters
        {
            Region = new VelostrixRegion(8, 6, 80, 60),
            Scale = 0.75,
            Equalise = true,
            ForwardDifferences = true,
            BlurRadius = 2,
            IterationCap = 30,
            Band = 20,
            FactorGain = 0.9,
            Curvature = new OutputScaling(120, 300.5),
            Magnitude = new OutputScaling(3, 200.25),
            Channel0 = new OutputScaling(100, 90.0),
            Channel1 = new OutputScaling(140, -90.0),
            Channel2 = new OutputScaling(5, 4000.0)
        };
    }

    static void Main(string[] arguments)
    {
        string folder = arguments[0];
        int width = int.Parse(arguments[1]), height = int.Parse(arguments[2]);
        var images = new List<byte[]>();
        for (int k = 0; k < int.Parse(arguments[3]); ++k)
        {
            images.Add(File.ReadAllBytes(Path.Combine(folder, $"image{k}.raw")));
        }
        var runs = new Dictionary<string, VelostrixRun>
        {
            { "uncali", VelostrixRun.Uncalibrated }, { "cali", VelostrixRun.Calibrated },
            { "partrows", VelostrixRun.PartRows }, { "partcols", VelostrixRun.PartCols }
        };
        using (var tool = new VelostrixTool())
        {
            foreach (KeyValuePair<string, VelostrixRun> run in runs)
            {
                var plain = new VelostrixParameters { Run = run.Value };
                plain = AutoGain.Choose(tool, images, width, height, plain);
                VelostrixParameters tuned = Tuned();
                tuned.Run = run.Value;
                Write(Path.Combine(folder, "csharp", "plain", run.Key),
                      tool.Reconstruct(images, width, height, plain));
                Write(Path.Combine(folder, "csharp", "tuned", run.Key),
                      tool.Reconstruct(images, width, height, tuned));
            }
        }
    }

    static void Write(string folder, VelostrixResults results)
    {
        Directory.CreateDirectory(folder);
        foreach (VelostrixOutput output in results.Made)
        {
            VelostrixImage image = results[output];
            byte[] bytes;
            if (output == VelostrixOutput.Height)
            {
                bytes = new byte[2 * image.Levels().Length];
                Buffer.BlockCopy(image.Levels(), 0, bytes, 0, bytes.Length);
            }
            else
            {
                bytes = image.Bytes();
            }
            File.WriteAllBytes(
                Path.Combine(folder, output.ToString().ToLowerInvariant() + ".raw"), bytes);
        }
    }
}
