// A host in C#. Without arguments: checks what the C# classes add. With FOLDER WIDTH HEIGHT COUNT:
// reconstructs raw images by every run.
using System;
using System.Collections.Generic;
using System.IO;
using System.Linq;
using System.Runtime.InteropServices;
using Velostrix;

static class CsharpHost
{
    const int Width = 80, Height = 60, Count = 4;
    static int failures;

    static readonly VelostrixParameters Tuned = new VelostrixParameters
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

    static void WriteResults(string folder, int width, int height, int count)
    {
        byte[][] images = Enumerable.Range(0, count)
            .Select(k => File.ReadAllBytes(Path.Combine(folder, $"image{k}.raw"))).ToArray();
        string[] names = { "uncali", "cali", "partrows", "partcols" };
        var tool = new VelostrixTool();
        for (int run = 0; run < names.Length; ++run)
        {
            var plain = new VelostrixParameters { Run = (VelostrixRun)run };
            plain = AutoGain.Choose(tool, images, width, height, plain);
            Write(Path.Combine(folder, "csharp", "plain", names[run]),
                  tool.Reconstruct(images, width, height, plain));
            Tuned.Run = (VelostrixRun)run;
            Write(Path.Combine(folder, "csharp", "tuned", names[run]),
                  tool.Reconstruct(images, width, height, Tuned));
        }
    }

    static void Write(string folder, VelostrixResults results)
    {
        Directory.CreateDirectory(folder);
        foreach (VelostrixOutput output in results.Made)
        {
            VelostrixImage image = results[output];
            byte[] bytes = output == VelostrixOutput.Height
                ? image.Levels().SelectMany(BitConverter.GetBytes).ToArray()
                : image.Bytes();
            string name = output.ToString().ToLowerInvariant() + ".raw";
            File.WriteAllBytes(Path.Combine(folder, name), bytes);
        }
    }

    static void Expect(bool isSo, string what)
    {
        if (isSo) return;
        ++failures;
        Console.Error.WriteLine("FAILED: " + what);
    }

    static void ExpectRefusal(string text, Action action)
    {
        string said = "nothing";
        try
        {
            action();
        }
        catch (VelostrixException error)
        {
            said = error.Message;
        }
        Expect(said.Contains(text), $"'{said}' does not say '{text}'");
    }

    static List<byte[]> Noise(int seed)
    {
        var random = new Random(seed);
        var images = new List<byte[]>();
        for (int k = 0; k < Count; ++k)
        {
            images.Add(new byte[Width * Height]);
            random.NextBytes(images[k]);
        }
        return images;
    }

    static void LayoutsAndEntryPointsAreThoseOfTheModule()
    {
        Expect(Marshal.SizeOf(typeof(UnCalibrationParam)) == 200, "size of UnCalibrationParam");
        Expect(Marshal.SizeOf(typeof(ImageRecord)) == 32, "size of ImageRecord");
        Expect(Marshal.SizeOf(typeof(MatInfo)) == 40, "size of MatInfo");
        foreach (var type in new[] { typeof(Native), typeof(NativeMat) })
        {
            var entries = type.GetMethods().Where(method => method.IsStatic);
            foreach (var entry in entries) Marshal.Prelink(entry);
        }
    }

    static void ImagesComeAsBytesOrMatsAndResultsStay()
    {
        var curvature = new VelostrixParameters { Outputs = new[] { VelostrixOutput.Curvature } };
        List<byte[]> images = Noise(1);
        var tool = new VelostrixTool();
        VelostrixResults first = tool.Reconstruct(images, Width, Height, curvature);
        byte[] expected = (byte[])first[VelostrixOutput.Curvature].Bytes().Clone();
        ExpectRefusal("Height was not among", () => first[VelostrixOutput.Height].Levels());

        // Scaling comes and goes; images that were set before Prepare are forgotten.
        var region = new VelostrixRegion(9, 9, 40, 30);
        var half = new VelostrixParameters { Scale = 0.5, Region = region };
        VelostrixResults part = tool.Reconstruct(Noise(2), Width, Height, half);
        Expect(part[VelostrixOutput.Normal].Width == 40, "size of the region");
        tool.Prepare(Count, Width, Height, curvature);
        tool.SetImage(images[3]);
        tool.Prepare(Count, Width, Height, curvature);
        foreach (byte[] image in images)
        {
            var rows = Enumerable.Range(0, Height).Select(i => image.Skip(i * Width).Take(Width));
            tool.SetImage(rows.SelectMany(row => row.Concat(new byte[13])).ToArray(), Width + 13);
        }
        Expect(tool.Run()[VelostrixOutput.Curvature].Bytes().SequenceEqual(expected), "rows apart");

        foreach (byte[] image in images)
        {
            GCHandle pin = GCHandle.Alloc(image, GCHandleType.Pinned);
            IntPtr mat = NativeMat.VelostrixMatWrap(pin.AddrOfPinnedObject(), Height, Width, 0, 0);
            tool.SetImage(mat);
            NativeMat.VelostrixMatDelete(mat);
            pin.Free();
        }
        var mats = new Dictionary<VelostrixOutput, IntPtr>();
        ExpectRefusal("no cv::Mat is given for Curvature", () => tool.RunInto(mats));
        mats[VelostrixOutput.Curvature] = NativeMat.VelostrixMatNew();
        tool.RunInto(mats);
        byte[] intoMat = VelostrixImage.Copy(mats[VelostrixOutput.Curvature]).Bytes();
        Expect(intoMat.SequenceEqual(expected), "cv::Mat pointers");
        NativeMat.VelostrixMatDelete(mats[VelostrixOutput.Curvature]);
        tool.Dispose();
        tool.Dispose();
        Expect(first[VelostrixOutput.Curvature].Bytes().SequenceEqual(expected), "results stay");
        ExpectRefusal("call Prepare", () => tool.Run());
    }

    static void WhatCannotBeDoneIsRefused()
    {
        byte[] image = Noise(1)[0];
        var tool = new VelostrixTool();
        Action<VelostrixParameters> prepare = p => tool.Prepare(Count, Width, Height, p);
        var outside = new VelostrixRegion(1, 0, Width, Height);
        ExpectRefusal("call Prepare", () => tool.Run());
        ExpectRefusal("call Prepare", () => tool.SetImage(image));
        ExpectRefusal("9 images", () => tool.Prepare(9, Width, Height, new VelostrixParameters()));
        ExpectRefusal("at least 3 x 2", () => tool.Prepare(4, 2, 2, new VelostrixParameters()));
        ExpectRefusal("region", () => prepare(new VelostrixParameters { Region = outside }));
        ExpectRefusal("scale", () => prepare(new VelostrixParameters { Scale = double.NaN }));
        ExpectRefusal("blur", () => prepare(new VelostrixParameters { BlurRadius = 32768 }));
        ExpectRefusal("finite", () => prepare(new VelostrixParameters { FactorGain = 1.0 / 0.0 }));
        ExpectRefusal("run 7", () => prepare(new VelostrixParameters { Run = (VelostrixRun)7 }));

        prepare(new VelostrixParameters());
        IntPtr words = NativeMat.VelostrixMatNewSized(Height, Width, 2);
        ExpectRefusal("expected 4800 bytes", () => tool.SetImage(new byte[4799]));
        ExpectRefusal("stride of 79", () => tool.SetImage(image, 79));
        ExpectRefusal("not 8-bit", () => tool.SetImage(words));
        ExpectRefusal("not 8-bit", () => tool.SetImage(IntPtr.Zero));
        ExpectRefusal("0 of 4", () => tool.Run());
        NativeMat.VelostrixMatDelete(words);
        for (int k = 0; k < Count; ++k) tool.SetImage(image);
        ExpectRefusal("all 4", () => tool.SetImage(image));
        ExpectRefusal("call Levels", () => tool.Run()[VelostrixOutput.Height].Bytes());
    }

    static int Main(string[] arguments)
    {
        if (arguments.Length == 4)
        {
            WriteResults(arguments[0], int.Parse(arguments[1]), int.Parse(arguments[2]),
                         int.Parse(arguments[3]));
            return 0;
        }
        LayoutsAndEntryPointsAreThoseOfTheModule();
        ImagesComeAsBytesOrMatsAndResultsStay();
        WhatCannotBeDoneIsRefused();
        return failures == 0 ? 0 : 1;
    }
}
