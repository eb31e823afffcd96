// An application in C#. With a recipe: checks what the C# classes add. With `memory`: runs out of it. With
// FOLDER WIDTH HEIGHT COUNT: reconstructs raw images by the command line's recipes and by gains of its own.
using System;
using System.Collections.Generic;
using System.Drawing;
using System.IO;
using System.Linq;
using System.Reflection;
using System.Runtime.InteropServices;
using System.Threading.Tasks;
using Velostrix;

static class CsharpHost
{
    const int Width = 80, Height = 60, Count = 4;

    static void WriteResults(string folder, int width, int height, int count)
    {
        List<VelostrixImage> images = Enumerable.Range(0, count).Select(k => new VelostrixImage(
            File.ReadAllBytes(Path.Combine(folder, $"image{k}.raw")), width, height)).ToList();
        var tool = new VelostrixTool();
        foreach (string run in new[] { "uncali", "cali", "partrows", "partcols" })
        {
            foreach (string name in new[] { "plain", "tuned" })
            {
                VelostrixParameters read = VelostrixParameters.Load($"{folder}/cli/{name}/{run}/run.json");
                Write($"{folder}/csharp/by its recipe/{run}/{name}", tool.Reconstruct(images, read));
                if (name == "tuned") continue;
                read = tool.ChooseGains(images, new VelostrixParameters { Run = read.Run });
                Write($"{folder}/csharp/by chosen gains/{run}/{name}", tool.Reconstruct(images, read));
            }
        }
    }

    static void Write(string folder, VelostrixResults results)
    {
        Directory.CreateDirectory(folder);
        foreach (VelostrixOutput output in results.Made)
        {
            VelostrixImage image = results[output];
            byte[] bytes = image.SampleBytes == 2
                ? image.Levels().SelectMany(BitConverter.GetBytes).ToArray()
                : image.Bytes();
            File.WriteAllBytes($"{folder}/{output.ToString().ToLowerInvariant()}.raw", bytes);
        }
    }

    static void Expect(bool isSo, string what)
    {
        if (!isSo) throw new Exception("not so: " + what);
    }

    static void ExpectThrows<T>(string text, Action action) where T : Exception
    {
        try
        {
            action();
        }
        catch (T error) when (error.Message.Contains(text))
        {
            return;
        }
        throw new Exception($"no {typeof(T).Name} that says '{text}'");
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

    static IEnumerable<VelostrixImage> Images(IEnumerable<byte[]> pixels)
    {
        return pixels.Select(image => new VelostrixImage(image, Width, Height));
    }

    static void LayoutsAndEntryPointsAreThoseOfTheLibrary()
    {
        Type native = typeof(VelostrixTool).Assembly.GetType("Velostrix.Native");
        int size = native.GetNestedTypes().Sum(record => Marshal.SizeOf(record));
        Expect(size == 1152 + 32 + 32 + 56 + 32 + 424, "sizes of the records");
        foreach (MethodInfo method in native.GetMethods(BindingFlags.Static | BindingFlags.Public))
        {
            if ((method.Attributes & MethodAttributes.PinvokeImpl) != 0) Marshal.Prelink(method);
        }
    }

    static void ParametersComeAndGoAsRecipes(string recipe)
    {
        VelostrixParameters read = VelostrixParameters.Load(recipe);
        VelostrixRegion region = read.Region.Value;
        string values = string.Join(" ",
            read.Run, read.Band, string.Join("+", read.Outputs), region.X, region.Y, region.Width,
            region.Height, read.Scale, read.Equalise, read.Difference, read.BlurRadius,
            read.IterationCap, read.Orientation, read.Lamp.Value.Image,
            read.Lamp.Value.Degrees, read.Bits, read.White, read.Flat.Count, read.Flat[3][5],
            read.Gains[VelostrixOutput.Channel1],
            read.Offsets[VelostrixOutput.Channel2], read.Gains.IsKept(VelostrixOutput.Channel0));
        Expect(values == "PartCols 20 Factor+Curvature+Magnitude+Height+Channel1+Channel2+Normal" +
               " 8 6 80 60 0.75 True Forward 2 30 Upright 1 90.5 12 3500 4 0.25 -90 -5 False", values);

        // Set one by one, and written, they are the same.
        var copy = new VelostrixParameters();
        foreach (PropertyInfo property in copy.GetType().GetProperties().Where(p => p.CanWrite))
        {
            Expect(!Equals(property.GetValue(copy), property.GetValue(read)), property + ": give it another");
            property.SetValue(copy, property.GetValue(read));
        }
        foreach (VelostrixOutput output in Enum.GetValues(typeof(VelostrixOutput)))
        {
            if (read.Gains.IsKept(output)) copy.Gains[output] = read.Gains[output];
            if (read.Offsets.IsKept(output)) copy.Offsets[output] = read.Offsets[output];
        }
        string path = Path.GetTempFileName();
        copy.Save(path);
        Expect(File.ReadAllText(path) == read.ToJson() && read.Clone().ToJson() == read.ToJson(), "recipe");
        read.Gains.Release();
        Expect(read.Gains[VelostrixOutput.Channel2] == 127 && !read.ToJson().Contains("4000"), "released");
        File.WriteAllText(path, "{\"recipe_version\": 1, \"blür\": 2}");
        ExpectThrows<VelostrixException>(path + ": recipe: blür", () => VelostrixParameters.Load(path));
        File.Delete(path);
    }

    static void FoldersAreReadInOrderHeightsViewedAndLightEvenedOut()
    {
        string folder = Path.Combine(Path.GetTempPath(), Path.GetRandomFileName());
        Directory.CreateDirectory(folder);
        foreach (string name in "b10.PNG b9.png a.txt b09.tif ä.jpg".Split(' '))
        {
            File.WriteAllText(Path.Combine(folder, name), "");
        }
        string found = string.Join(" ", VelostrixFiles.Images(folder).Select(Path.GetFileName));
        Expect(found == "b9.png b09.tif b10.PNG ä.jpg", found);
        Directory.Delete(folder, true);

        var samples = Enumerable.Range(0, 60 * 40).Select(k => (ushort)(k % 60 * 1000)).ToArray();
        var height = new VelostrixImage(samples, 60, 40);
        var mask = new VelostrixImage(new byte[60 * 40], 60, 40);
        byte[] view = height.HeightView(VelostrixSurface.Plane, 50, mask).Bytes();
        Expect(view.Length == 60 * 40 && view.All(level => level == 0), "a view of what is masked");
        ExpectThrows<VelostrixException>("16-bit", () =>
            new VelostrixImage(view, 60, 40).HeightView());

        var even = new VelostrixParameters();
        even.FitFlat(Enumerable.Repeat(new VelostrixImage(
            Enumerable.Repeat((byte)100, Width * Height).ToArray(), Width, Height), Count));
        Expect(even.Flat.Count == Count && Math.Abs(even.Flat[0][0] - 1) < 1e-6, "flat fields");
    }

    static void ImagesOfEveryKindGiveTheSameBytes()
    {
        var curvature = new VelostrixParameters { Outputs = new[] { VelostrixOutput.Curvature } };
        List<byte[]> images = Noise(1);
        var tool = new VelostrixTool();
        VelostrixResults first = tool.Reconstruct(Images(images), curvature);
        byte[] expected = (byte[])first[VelostrixOutput.Curvature].Bytes().Clone();
        ExpectThrows<KeyNotFoundException>("Height", () => first[VelostrixOutput.Height].Levels());

        const int Stride = 96;
        IntPtr native = Marshal.AllocHGlobal(Stride * Height);
        var kinds = new Dictionary<string, Action<byte[]>>
        {
            { "byte[] with a stride", image => tool.SetImage(
                Enumerable.Range(0, Height).SelectMany(y => image.Skip(y * Width).Take(Width)
                    .Concat(new byte[Stride - Width])).ToArray(), Stride) },
            { "ushort[]", image => tool.SetImage(new VelostrixImage(
                image.Select(level => (ushort)(level * 257)).ToArray(), Width, Height)) },
            { "IntPtr", image =>
                {
                    for (int y = 0; y < Height; ++y)
                    {
                        Marshal.Copy(image, y * Width, native + y * Stride, Width);
                    }
                    tool.SetImage(native, Stride);
                } },
            { "Bitmap", image => tool.SetImage(
                new VelostrixImage(image, Width, Height).ToBitmap()) }
        };
        curvature.Bits = 16;
        foreach (var kind in kinds)
        {
            tool.Prepare(Count, Width, Height, curvature);
            images.ForEach(kind.Value);
            Expect(tool.Run()[VelostrixOutput.Curvature].Bytes().SequenceEqual(expected), kind.Key);
        }
        var red = new Bitmap(Width, Height);
        red.SetPixel(3, 4, Color.Red);
        ExpectThrows<ArgumentException>("(3, 4) has a colour", () => tool.SetImage(red));

        var places = new Dictionary<VelostrixOutput, VelostrixImage>
        {
            { VelostrixOutput.Curvature, new VelostrixImage(native, Width, Height, Stride) }
        };
        images.ForEach(image => tool.SetImage(image));
        tool.RunInto(places);
        var row = new byte[Width];
        Marshal.Copy(native + 7 * Stride, row, 0, Width);
        Expect(row.SequenceEqual(expected.Skip(7 * Width).Take(Width)), "place in native memory");
        Expect(tool.Times().Run > 0 && tool.Times().Images[Count - 1] > 0, "times");
        places[VelostrixOutput.Curvature] = new VelostrixImage(native, Width, Height - 1, Stride);
        images.ForEach(image => tool.SetImage(image));
        ExpectThrows<VelostrixException>("expected 80 x 60", () => tool.RunInto(places));
        tool.Dispose();
        Expect(first[VelostrixOutput.Curvature].Bytes().SequenceEqual(expected), "results stay");
        Marshal.FreeHGlobal(native);
    }

    static void DiagnosticsNameTheImages()
    {
        List<byte[]> images = Noise(3);
        images[1] = images[0];
        images[2] = new byte[Width * Height];
        var cali = new VelostrixParameters { Run = VelostrixRun.Calibrated };
        VelostrixDiagnostics found = new VelostrixTool().Diagnose(
            Images(images), cali, new[] { "lamp west", "lampe ümlaut", "c", "d" });
        Expect(found.Exposures.Count == Count && found.SingularValues.Count == Count, "counts");
        Expect(found.Exposures[1].EqualTo == 0 && found.Exposures[0].EqualTo == null, "equal");
        Expect(found.Exposures[2].IsDead && found.Exposures[2].BlackShare == 1.0, "dead");
        Expect(found.SingularValues[0] == 1.0, "singular values");
        Expect(found.Warnings.Any(text => text.Contains("lampe ümlaut")), "warning");
        found = new VelostrixTool().Diagnose(Images(Noise(4)), cali);
        Expect(found.UnexplainedByRing >= found.UnexplainedByAny, "shares that are not explained");
    }

    static void WhatCannotBeDoneThrows()
    {
        byte[] pixels = Noise(1)[0];
        var image = new VelostrixImage(pixels, Width, Height);
        var parameters = new VelostrixParameters();
        var tool = new VelostrixTool();
        ExpectThrows<VelostrixException>("prepare", () => tool.Run());
        ExpectThrows<VelostrixException>("9", () => parameters.Check(9, Width, Height));
        ExpectThrows<VelostrixException>("", () => tool.Reconstruct(Images(Noise(1).Take(0)), parameters));
        tool.Prepare(Count, Width, Height, parameters);
        ExpectThrows<VelostrixException>("expected 4800 bytes", () => tool.SetImage(new byte[4799]));
        ExpectThrows<VelostrixException>("", () => tool.SetImage(pixels, -80));
        ExpectThrows<VelostrixException>("1 names of 3", () => tool.Diagnose(
            new[] { image, image, image }, parameters, new[] { "a" }));

        Action[] nulls =
        {
            () => tool.SetImage((byte[])null), () => tool.SetImage((VelostrixImage)null),
            () => tool.SetImage((Bitmap)null), () => tool.SetImage(IntPtr.Zero, 80),
            () => tool.Prepare(Count, Width, Height, null), () => tool.RunInto(null),
            () => tool.Reconstruct(null, parameters), () => tool.ChooseGains(new[] { image }, null),
            () => tool.Diagnose(new VelostrixImage[] { null }, parameters),
            () => parameters.Outputs = null, () => VelostrixParameters.FromJson(null)
        };
        foreach (Action action in nulls) ExpectThrows<ArgumentNullException>("", action);

        for (int k = 0; k < Count; ++k) tool.SetImage(image);
        ExpectThrows<InvalidOperationException>(
            "call Levels", () => tool.Run()[VelostrixOutput.Height].Bytes());

        // Disposed under a run, perhaps: the memory lives until the run is over.
        for (int k = 0; k < Count; ++k) tool.SetImage(image);
        Task run = Task.Run(() => tool.Run());
        tool.Dispose();
        ((IAsyncResult)run).AsyncWaitHandle.WaitOne();
        Expect(run.Exception?.InnerException is ObjectDisposedException || !run.IsFaulted, "a run");
        tool.Dispose();
        Action[] disposed =
        {
            () => tool.Run(), () => tool.SetImage(image), () => tool.ClearImages(),
            () => tool.Prepare(Count, Width, Height, parameters), () => tool.Times()
        };
        foreach (Action action in disposed) ExpectThrows<ObjectDisposedException>("", action);
    }

    [StructLayout(LayoutKind.Sequential)]
    struct Limit
    {
        public ulong Soft, Hard;
    }

    [DllImport("libc", SetLastError = true)]
    static extern int setrlimit(int resource, ref Limit limit);

    // The address space may grow by this many MiB; null: without a limit.
    static void LimitGrowth(ulong? mebibytes)
    {
        const int AddressSpace = 9;
        ulong pages = ulong.Parse(File.ReadAllText("/proc/self/statm").Split(' ')[0]);
        ulong soft = pages * (ulong)Environment.SystemPageSize + (mebibytes << 20) ?? ulong.MaxValue;
        var limit = new Limit { Soft = soft, Hard = ulong.MaxValue };
        Expect(setrlimit(AddressSpace, ref limit) == 0, "setrlimit");
    }

    // What is missing is first the working buffers, then the run's own memory, then the results'.
    static void MemoryThatIsMissingIsAnException()
    {
        const int Side = 2000;
        var pixels = new byte[Side * Side];
        new Random(5).NextBytes(pixels);
        var images = Enumerable.Repeat(new VelostrixImage(pixels, Side, Side), Count).ToList();
        var parameters = new VelostrixParameters { IterationCap = 2 };
        VelostrixParameters small = parameters.Clone();
        small.Region = new VelostrixRegion(8, 6, 80, 60);
        var reasons = new HashSet<string>();
        for (ulong mebibytes = 16;; mebibytes += 16)
        {
            var tool = new VelostrixTool();
            tool.Reconstruct(images, small);  // what is loaded and compiled on first use
            LimitGrowth(mebibytes);
            bool isEnough = true;
            try
            {
                tool.Reconstruct(images, parameters);
            }
            catch (OutOfMemoryException error)
            {
                isEnough = false;
                reasons.Add(error.Message);
            }
            LimitGrowth(null);
            Expect(tool.Reconstruct(images, small)[VelostrixOutput.Height].Width == 80,
                   $"a run after one with {mebibytes} MiB");
            tool.Dispose();
            if (isEnough) break;
        }
        Expect(reasons.Count >= 2, string.Join("; ", reasons));
    }

    static void Main(string[] arguments)
    {
        if (arguments.Length == 4)
        {
            WriteResults(arguments[0], int.Parse(arguments[1]), int.Parse(arguments[2]),
                         int.Parse(arguments[3]));
        }
        else if (arguments[0] == "memory")
        {
            MemoryThatIsMissingIsAnException();
        }
        else
        {
            LayoutsAndEntryPointsAreThoseOfTheLibrary();
            ParametersComeAndGoAsRecipes(arguments[0]);
            FoldersAreReadInOrderHeightsViewedAndLightEvenedOut();
            ImagesOfEveryKindGiveTheSameBytes();
            DiagnosticsNameTheImages();
            WhatCannotBeDoneThrows();
        }
    }
}
