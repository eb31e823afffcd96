// The C# classes: results, refusals that say what was refused, cv::Mat pointers, spelled-out records.
using System;
using System.Collections.Generic;
using System.Linq;
using System.Runtime.InteropServices;
using Velostrix;

static class CsharpHostTest
{
    const int Width = 80, Height = 60;
    static int failures;

    static void Expect(bool isSo, string what)
    {
        if (isSo) return;
        ++failures;
        Console.Error.WriteLine("FAILED: " + what);
    }

    static void ExpectRefusal(string text, Action action)
    {
        try
        {
            action();
            Expect(false, "not refused: " + text);
        }
        catch (VelostrixException error)
        {
            Expect(error.Message.Contains(text), $"'{error.Message}' does not say '{text}'");
        }
    }

    // A bump under four lamps, with noise.
    static List<byte[]> LitBump(int seed = 7)
    {
        var random = new Random(seed);
        var images = new List<byte[]>();
        for (int lamp = 0; lamp < 4; ++lamp)
        {
            var image = new byte[Width * Height];
            for (int k = 0; k < image.Length; ++k)
            {
                double x = k % Width - Width / 2, y = k / Width - Height / 2;
                double height = 8.0 * Math.Exp(-(x * x + y * y) / 150.0);
                double p = -x / 75.0 * height, q = -y / 75.0 * height;
                double angle = Math.PI / 2.0 * lamp;
                double shading = (Math.Cos(angle) * p + Math.Sin(angle) * q + 2.0) /
                                 Math.Sqrt(p * p + q * q + 1.0);
                image[k] = (byte)Math.Max(0.0, Math.Min(255.0, 60.0 * shading + random.Next(3)));
            }
            images.Add(image);
        }
        return images;
    }

    static void RecordsHaveTheLayoutOfTheHeader()
    {
        Expect(Marshal.SizeOf(typeof(UnCalibrationParam)) == 200, "size of UnCalibrationParam");
        Expect(Marshal.SizeOf(typeof(ImageRecord)) == 32, "size of ImageRecord");
        Expect(Marshal.SizeOf(typeof(MatInfo)) == 40, "size of MatInfo");
    }

    static void EveryEntryPointResolves()
    {
        foreach (var type in new[] { typeof(Native), typeof(NativeMat) })
        {
            foreach (var method in type.GetMethods().Where(m => m.IsStatic))
            {
                Marshal.Prelink(method);
            }
        }
    }

    static void AllRunsGiveAllOutputs()
    {
        foreach (VelostrixRun run in Enum.GetValues(typeof(VelostrixRun)))
        {
            using (var tool = new VelostrixTool())
            {
                var results = tool.Reconstruct(
                    LitBump(), Width, Height, new VelostrixParameters { Run = run, Band = 20 });
                Expect(results.Made.Count() == 8, run + ": eight images");
                Expect(results[VelostrixOutput.Height].Levels().Max() == 65535, run + ": height");
                byte[] normal = results[VelostrixOutput.Normal].Bytes();
                byte[] slope = results[VelostrixOutput.Channel1].Bytes();
                Expect(slope.Select((level, k) => normal[3 * k + 1] == level).All(same => same),
                       run + ": channel 1 of the normal image");
            }
        }
    }

    static void ImagesComeAsBytesOrMats()
    {
        var parameters = new VelostrixParameters { Outputs = new[] { VelostrixOutput.Curvature } };
        List<byte[]> images = LitBump();
        using (var tool = new VelostrixTool())
        {
            byte[] expected = tool.Reconstruct(images, Width, Height, parameters)
                [VelostrixOutput.Curvature].Bytes();

            const int Stride = Width + 13;
            tool.Prepare(images.Count, Width, Height, parameters);
            foreach (byte[] image in images)
            {
                var wide = new byte[Stride * Height];
                for (int i = 0; i < Height; ++i) Array.Copy(image, i * Width, wide, i * Stride, Width);
                tool.SetImage(wide, Stride);
            }
            Expect(tool.Run()[VelostrixOutput.Curvature].Bytes().SequenceEqual(expected),
                   "rows apart");

            IntPtr result = NativeMat.VelostrixMatNew();
            tool.Prepare(images.Count, Width, Height, parameters);
            foreach (byte[] image in images)
            {
                GCHandle pin = GCHandle.Alloc(image, GCHandleType.Pinned);
                IntPtr mat = NativeMat.VelostrixMatWrap(
                    pin.AddrOfPinnedObject(), Height, Width, 0, 0);
                tool.SetImage(mat);
                NativeMat.VelostrixMatDelete(mat);
                pin.Free();
            }
            ExpectRefusal("no cv::Mat is given for Curvature",
                          () => tool.RunInto(new Dictionary<VelostrixOutput, IntPtr>()));
            tool.RunInto(new Dictionary<VelostrixOutput, IntPtr>
                { { VelostrixOutput.Curvature, result } });
            Expect(VelostrixImage.Copy(result).Bytes().SequenceEqual(expected), "cv::Mat pointers");
            NativeMat.VelostrixMatDelete(result);
        }
    }

    static void GainsFillTheRangeAndScaleComesAndGoes()
    {
        List<byte[]> images = LitBump();
        using (var tool = new VelostrixTool())
        {
            var full = new VelostrixParameters();
            var chosen = AutoGain.Choose(tool, images, Width, Height, full);
            byte[] first = tool.Reconstruct(images, Width, Height, chosen)
                [VelostrixOutput.Channel0].Bytes();
            byte[] sorted = first.OrderBy(level => level).ToArray();
            Expect(sorted[sorted.Length / 100] < 20 || sorted[sorted.Length * 99 / 100] > 236,
                   "the slope fills the range");

            VelostrixParameters half = chosen.Clone();
            half.Scale = 0.5;
            half.Region = new VelostrixRegion(10, 10, 40, 30);
            var part = tool.Reconstruct(images, Width, Height, half)[VelostrixOutput.Normal];
            Expect(part.Width == 40 && part.Height == 30, "size of the region");
            byte[] again = tool.Reconstruct(images, Width, Height, chosen)
                [VelostrixOutput.Channel0].Bytes();
            Expect(again.SequenceEqual(first), "full scale after half scale");
        }
    }

    static void WhatCannotBeDoneIsRefused()
    {
        List<byte[]> images = LitBump();
        var fine = new VelostrixParameters();
        var tool = new VelostrixTool();
        ExpectRefusal("call Prepare", () => tool.Run());
        ExpectRefusal("call Prepare", () => tool.SetImage(images[0]));
        ExpectRefusal("9 images", () => tool.Prepare(9, Width, Height, fine));
        ExpectRefusal("at least 3 x 2", () => tool.Prepare(4, 2, 2, fine));
        ExpectRefusal("region", () => tool.Prepare(4, Width, Height, new VelostrixParameters
            { Region = new VelostrixRegion(1, 1, Width, Height) }));
        ExpectRefusal("scale", () => tool.Prepare(4, Width, Height, new VelostrixParameters
            { Scale = double.NaN }));
        ExpectRefusal("blur", () => tool.Prepare(4, Width, Height, new VelostrixParameters
            { BlurRadius = -1 }));
        ExpectRefusal("finite", () => tool.Prepare(4, Width, Height, new VelostrixParameters
            { FactorGain = double.PositiveInfinity }));
        ExpectRefusal("run 7", () => tool.Prepare(4, Width, Height, new VelostrixParameters
            { Run = (VelostrixRun)7 }));

        tool.Prepare(4, Width, Height, fine);
        ExpectRefusal("expected 4800 bytes", () => tool.SetImage(new byte[4799]));
        ExpectRefusal("stride of 79", () => tool.SetImage(images[0], 79));
        IntPtr word = NativeMat.VelostrixMatNewSized(Height, Width, 2);
        ExpectRefusal("not 8-bit", () => tool.SetImage(word));
        ExpectRefusal("not 8-bit", () => tool.SetImage(IntPtr.Zero));
        NativeMat.VelostrixMatDelete(word);
        ExpectRefusal("0 of 4", () => tool.Run());
        foreach (byte[] image in images) tool.SetImage(image);
        ExpectRefusal("all 4", () => tool.SetImage(images[0]));
        VelostrixResults results = tool.Run();
        ExpectRefusal("call Levels", () => results[VelostrixOutput.Height].Bytes());
        tool.Dispose();
        tool.Dispose();
        ExpectRefusal("call Prepare", () => tool.Run());
    }

    static int Main()
    {
        RecordsHaveTheLayoutOfTheHeader();
        EveryEntryPointResolves();
        AllRunsGiveAllOutputs();
        ImagesComeAsBytesOrMats();
        GainsFillTheRangeAndScaleComesAndGoes();
        WhatCannotBeDoneIsRefused();
        Console.WriteLine(failures == 0 ? "all passed" : failures + " failed");
        return failures == 0 ? 0 : 1;
    }
}
