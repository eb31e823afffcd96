// The reconstructor as a C# object: prepare once, then set images and run, part after part.
using System;
using System.Collections.Generic;
using System.Linq;
using System.Runtime.InteropServices;
using System.Text;

namespace Velostrix
{
    /// <summary>Why a call was refused or failed.</summary>
    public enum VelostrixStatus
    {
        /// <summary>It was done.</summary>
        Ok,
        /// <summary>An argument or a parameter is wrong.</summary>
        InvalidArgument,
        /// <summary>Thrown as OutOfMemoryException.</summary>
        OutOfMemory,
        /// <summary>Not prepared, images missing, no results yet.</summary>
        WrongState,
        /// <summary>Another thread is using the tool.</summary>
        Busy,
        /// <summary>Any other failure; the message has its text.</summary>
        Failed
    }

    /// <summary>Says what was refused and what is expected.</summary>
    public sealed class VelostrixException : Exception
    {
        internal VelostrixException(VelostrixStatus status, string text) : base(text)
        {
            Status = status;
        }

        /// <summary>The kind of refusal. After Failed, prepare the tool again.</summary>
        public VelostrixStatus Status { get; }
    }

    /// <summary>How long the calls of the latest part took, in milliseconds.</summary>
    public sealed class VelostrixTimes
    {
        internal VelostrixTimes(double[] times)
        {
            Parameters = times[0];
            Buffers = times[1];
            Images = new ArraySegment<double>(times, 2, Native.MostImages);
            Run = times[2 + Native.MostImages];
        }

        /// <summary>Parameters and region.</summary>
        public double Parameters { get; }
        /// <summary>Allocating the buffers, perhaps for an earlier part.</summary>
        public double Buffers { get; }
        /// <summary>Setting each image; 0 beyond those set.</summary>
        public IReadOnlyList<double> Images { get; }
        /// <summary>The run itself.</summary>
        public double Run { get; }
    }

    /// <summary>The orientation of a part's slopes, and how results were corrected.</summary>
    public sealed class VelostrixOrientationFound
    {
        internal VelostrixOrientationFound(Native.OrientationFound found)
        {
            if (found.CurlAsIs >= 0) CurlAsIs = found.CurlAsIs;
            if (found.CurlMirrored >= 0) CurlMirrored = found.CurlMirrored;
            IsClear = found.IsClear != 0;
            IsMirrored = found.IsMirrored != 0;
            IsTurned = found.IsTurned != 0;
            IsInverted = found.IsInverted != 0;
            IsSignOpen = found.IsSignOpen != 0;
            HasMirroredCurvature = found.HasMirroredCurvature != 0;
            Turn = found.Turn;
        }

        /// <summary>
        /// Share (0 to 1/2) of the slopes' derivatives that fits no surface: near 0 for the slopes of
        /// a surface; null: not measured, as for as-is and calibrated runs.
        /// </summary>
        public double? CurlAsIs { get; }
        /// <summary>The same for the mirrored slopes.</summary>
        public double? CurlMirrored { get; }
        /// <summary>The two shares differ enough to decide.</summary>
        public bool IsClear { get; }
        /// <summary>Slopes were mirrored; the run was made on flipped images.</summary>
        public bool IsMirrored { get; }
        /// <summary>Slopes were turned by about a quarter turn; channels were swapped.</summary>
        public bool IsTurned { get; }
        /// <summary>Slopes had the opposite sign; height and slopes were negated.</summary>
        public bool IsInverted { get; }
        /// <summary>No lamp's direction is known: bumps may appear as dents.</summary>
        public bool IsSignOpen { get; }
        /// <summary>Curvature comes from mirrored slopes, where it shows more.</summary>
        public bool HasMirroredCurvature { get; }
        /// <summary>Degrees, counterclockwise, by which the slopes remain turned.</summary>
        public double Turn { get; }
    }

    /// <summary>Exposure of one image.</summary>
    public sealed class VelostrixExposure
    {
        internal VelostrixExposure(Native.Exposure exposure)
        {
            SaturatedShare = exposure.SaturatedShare;
            BlackShare = exposure.BlackShare;
            MeanLevel = exposure.MeanLevel;
            IsDead = exposure.IsDead != 0;
            EqualTo = exposure.EqualTo < 0 ? (int?)null : exposure.EqualTo;
        }

        /// <summary>Share of the pixels (0 to 1) at level 255.</summary>
        public double SaturatedShare { get; }
        /// <summary>Share of the pixels (0 to 1) at level 0.</summary>
        public double BlackShare { get; }
        /// <summary>Mean grey level.</summary>
        public double MeanLevel { get; }
        /// <summary>Dark all over: lamp dead or lens covered.</summary>
        public bool IsDead { get; }
        /// <summary>Index of the first earlier image with the same pixels; null: none.</summary>
        public int? EqualTo { get; }
    }

    /// <summary>Whether images are fit for reconstruction.</summary>
    public sealed class VelostrixDiagnostics
    {
        internal VelostrixDiagnostics(Native.Diagnostics record, IReadOnlyList<string> warnings)
        {
            int count = record.ImageCount;
            Exposures = Array.ConvertAll(
                new List<Native.Exposure>(record.Exposures).GetRange(0, count).ToArray(),
                exposure => new VelostrixExposure(exposure));
            SingularValues = new ArraySegment<double>(record.SingularValues, 0, count);
            if (record.UnexplainedByRing >= 0) UnexplainedByRing = record.UnexplainedByRing;
            if (record.UnexplainedByAny >= 0) UnexplainedByAny = record.UnexplainedByAny;
            Shifts = Array.ConvertAll(
                new ArraySegment<double>(record.Shifts, 0, count).ToArray(),
                shift => shift < 0 ? (double?)null : shift);
            if (record.NoiseShare >= 0) NoiseShare = record.NoiseShare;
            LastPiece = record.LastPiece;
            Warnings = warnings;
        }

        /// <summary>Of each image.</summary>
        public IReadOnlyList<VelostrixExposure> Exposures { get; }
        /// <summary>
        /// Singular values of the images x pixels matrix, descending, the first scaled to 1. The second
        /// and third say how much the lamps differ in one and in two directions.
        /// </summary>
        public IReadOnlyList<double> SingularValues { get; }
        /// <summary>
        /// Calibrated run: share of the images (root mean square, 0 to 1) that normals under the lamps
        /// of the ring do not explain; null: not measured.
        /// </summary>
        public double? UnexplainedByRing { get; }
        /// <summary>The same for lamps anywhere; null: not measured.</summary>
        public double? UnexplainedByAny { get; }
        /// <summary>
        /// Pixels by which each image is shifted against most; null: cannot be measured.
        /// </summary>
        public IReadOnlyList<double?> Shifts { get; }
        /// <summary>
        /// Share (0 to 1) of the curvature image's variance that is noise of the camera; null: not
        /// measured, as with a scale below 0.99.
        /// </summary>
        public double? NoiseShare { get; }
        /// <summary>
        /// Partial runs: rows or columns of the last piece; 0: no pieces.
        /// </summary>
        public int LastPiece { get; }
        /// <summary>Each says what is wrong and what to do.</summary>
        public IReadOnlyList<string> Warnings { get; }
    }

    /// <summary>
    /// A reconstructor, which keeps its buffers from part to part: about 52 + 5 N bytes a pixel until
    /// it is disposed. Use a tool from one thread at a time; separate tools are independent.
    /// </summary>
    /// <remarks>
    /// All members throw VelostrixException for refused calls, which leave the tool unchanged;
    /// OutOfMemoryException, after which the tool must be prepared again; and
    /// ObjectDisposedException.
    /// </remarks>
    /// <example><code>
    /// using (var tool = new VelostrixTool())
    /// {
    ///     tool.Prepare(4, 640, 480, new VelostrixParameters { Run = VelostrixRun.Calibrated });
    ///     for (;;)
    ///     {
    ///         for (int k = 0; k &lt; 4; ++k) tool.SetImage(camera.Grab(lamp: k));
    ///         byte[] curvature = tool.Run()[VelostrixOutput.Curvature].Bytes();
    ///     }
    /// }
    /// </code></example>
    public sealed class VelostrixTool : IDisposable
    {
        readonly ReconstructorHandle handle;
        int width, height;  // prepared

        /// <summary>A tool that is not prepared yet.</summary>
        /// <exception cref="VelostrixException">The native library has another version.</exception>
        public VelostrixTool()
        {
            var message = new byte[Native.LongestMessage];
            Native.Check(
                Native.VelostrixCheckVersion(Native.Major, Native.Minor, message), message);
            Native.Check(Native.VelostrixReconstructorCreate(out handle));
        }

        /// <summary>"MAJOR.MINOR.PATCH" of the native library.</summary>
        public static string LibraryVersion =>
            Marshal.PtrToStringAnsi(Native.VelostrixLibraryVersion());

        /// <summary>
        /// Threads that the height may use in this process, the caller included; set to 0: one for
        /// each core (the default). Not to be set during a run. Results do not depend on it.
        /// </summary>
        public static int Threads
        {
            get => Native.VelostrixThreads();
            set => Native.Check(Native.VelostrixSetThreads(value));
        }

        ReconstructorHandle Handle =>
            handle.IsClosed ? throw new ObjectDisposedException(nameof(VelostrixTool)) : handle;

        void Check(VelostrixStatus status)
        {
            if (status == VelostrixStatus.Ok) return;
            var message = new byte[Native.LongestMessage];
            if (status != VelostrixStatus.Busy)
            {
                Native.VelostrixReconstructorMessage(handle, message);
            }
            Native.Check(status, message);
        }

        static Native.Settings Record(VelostrixParameters parameters) =>
            (parameters ?? throw new ArgumentNullException(nameof(parameters))).Record();

        internal static Native.Image Record(VelostrixImage image, string name, Pins pins)
        {
            if (image == null) throw new ArgumentNullException(name);
            if (image.Channels != 1)
            {
                throw new VelostrixException(
                    VelostrixStatus.InvalidArgument,
                    $"the image has {image.Channels} channels; expected 1");
            }
            return new Native.Image
            {
                Data = image.Address(pins), RowStride = image.Stride, Width = image.Width,
                Height = image.Height, SampleBytes = image.SampleBytes
            };
        }

        internal static Native.Image[] Records(IEnumerable<VelostrixImage> images, Pins pins)
        {
            if (images == null) throw new ArgumentNullException(nameof(images));
            var records = new List<Native.Image>();
            foreach (VelostrixImage image in images) records.Add(Record(image, nameof(images), pins));
            return records.ToArray();
        }

        /// <summary>
        /// Prepares the tool for `count` (3 to 8) images of width x height pixels and the parameters;
        /// forgets images and results. Allocates only when count, size, region or scale change.
        /// </summary>
        public void Prepare(int count, int width, int height, VelostrixParameters parameters)
        {
            Native.Settings settings = Record(parameters);
            Check(Native.VelostrixReconstructorPrepare(Handle, count, width, height, ref settings));
            this.width = width;
            this.height = height;
        }

        /// <summary>Copies the next image; images come in the order of the lamps.</summary>
        public void SetImage(VelostrixImage image)
        {
            using (var pins = new Pins())
            {
                Native.Image record = Record(image, nameof(image), pins);
                Check(Native.VelostrixReconstructorSetImage(Handle, ref record));
            }
        }

        /// <summary>The same for 8-bit grey levels of the prepared size.</summary>
        /// <param name="pixels">Row after row.</param>
        /// <param name="stride">Bytes from one row to the next; 0 = rows without gaps.</param>
        public void SetImage(byte[] pixels, int stride = 0) =>
            SetImage(new VelostrixImage(pixels, width, height, stride));

        /// <summary>The same for pixels in native memory.</summary>
        /// <param name="pixels">First pixel of `height` rows; not checked.</param>
        /// <param name="stride">Bytes from one row to the next; 0 = rows without gaps.</param>
        /// <param name="sampleBytes">1, or 2 for 16-bit samples.</param>
        public void SetImage(IntPtr pixels, long stride, int sampleBytes = 1) =>
            SetImage(new VelostrixImage(pixels, width, height, stride, sampleBytes));

        /// <summary>
        /// From now on leaves out the pixels where the mask (8-bit, as large as the images) is 0;
        /// null: no pixel. They do not count for gains and diagnostics; in the results they are 128,
        /// in the height 0. Prepare comes next.
        /// </summary>
        public void SetMask(VelostrixImage mask)
        {
            using (var pins = new Pins())
            {
                Check(Native.VelostrixReconstructorSetMask(
                    Handle, mask == null ? null : new[] { Record(mask, nameof(mask), pins) }));
            }
        }

        /// <summary>
        /// Leaves out the pixels that no lamp lights, such as a black background. Of the parameters
        /// only White, Bits and Flat are used.
        /// </summary>
        /// <returns>The share of the pixels that is not left out.</returns>
        public double MaskUnlit(
            IEnumerable<VelostrixImage> images, VelostrixParameters parameters)
        {
            Native.Settings settings = Record(parameters);
            using (var pins = new Pins())
            {
                Native.Image[] records = Records(images, pins);
                Check(Native.VelostrixReconstructorMaskUnlit(
                    Handle, records, records.Length, ref settings, out double kept));
                return kept;
            }
        }

        /// <summary>Forgets the images set so far, to start the part again.</summary>
        public void ClearImages() => Check(Native.VelostrixReconstructorClearImages(Handle));

        /// <summary>Runs on the images, all of which must be set, and forgets them.</summary>
        /// <returns>Copies of the results in managed memory.</returns>
        public VelostrixResults Run()
        {
            Check(Native.VelostrixReconstructorRun(Handle));
            return CopyResults();
        }

        /// <summary>Runs, and copies results to the application's memory.</summary>
        /// <param name="places">
        /// Memory for each output to copy, of the size of the region or of the images; other results
        /// are not copied.
        /// </param>
        public void RunInto(IEnumerable<KeyValuePair<VelostrixOutput, VelostrixImage>> places)
        {
            if (places == null) throw new ArgumentNullException(nameof(places));
            Check(Native.VelostrixReconstructorRun(Handle));
            foreach (KeyValuePair<VelostrixOutput, VelostrixImage> place in places)
            {
                Check(Native.VelostrixReconstructorResult(Handle, place.Key, out Native.Plane plane));
                VelostrixImage image = place.Value;
                if (image == null) throw new ArgumentNullException(nameof(places));
                string given = Shape(image.Width, image.Height, image.Channels, image.SampleBytes);
                string made = Shape(plane.Width, plane.Height, plane.Channels, plane.SampleBytes);
                if (given != made)
                {
                    throw new VelostrixException(
                        VelostrixStatus.InvalidArgument,
                        $"the place for {place.Key} is {given}; expected {made}");
                }
                CopyResult(place.Key, image);
            }
        }

        static string Shape(int width, int height, int channels, int sampleBytes) =>
            $"{width} x {height} pixels of {channels} x {sampleBytes} bytes";

        /// <summary>Prepares, sets the images and runs.</summary>
        /// <returns>Copies of the results.</returns>
        public VelostrixResults Reconstruct(
            IEnumerable<VelostrixImage> images, VelostrixParameters parameters)
        {
            Native.Settings settings = Record(parameters);
            using (var pins = new Pins())
            {
                Native.Image[] records = Records(images, pins);
                Check(Native.VelostrixReconstructorReconstruct(
                    Handle, records, records.Length, ref settings));
                width = records[0].Width;
                height = records[0].Height;
            }
            return CopyResults();
        }

        VelostrixResults CopyResults()
        {
            var results = new VelostrixResults();
            for (int k = 0; k < Native.OutputCount; ++k)
            {
                var output = (VelostrixOutput)k;
                VelostrixStatus status =
                    Native.VelostrixReconstructorResult(Handle, output, out Native.Plane plane);
                if (status == VelostrixStatus.InvalidArgument) continue;  // not made
                Check(status);
                var image = new VelostrixImage(plane);
                CopyResult(output, image);
                results.Add(output, image);
            }
            return results;
        }

        void CopyResult(VelostrixOutput output, VelostrixImage image)
        {
            using (var pins = new Pins())
            {
                Check(Native.VelostrixReconstructorCopyResult(
                    Handle, output, image.Address(pins), image.Stride, image.Capacity));
            }
        }

        /// <summary>The orientation of the latest part's slopes, and how it was corrected.</summary>
        public VelostrixOrientationFound Orientation()
        {
            var found = new Native.OrientationFound
            {
                StructSize = Marshal.SizeOf(typeof(Native.OrientationFound))
            };
            Check(Native.VelostrixReconstructorOrientation(Handle, ref found));
            return new VelostrixOrientationFound(found);
        }

        /// <summary>How long the calls of the latest part took.</summary>
        public VelostrixTimes Times()
        {
            var times = new double[3 + Native.MostImages];
            Check(Native.VelostrixReconstructorTimes(Handle, times));
            return new VelostrixTimes(times);
        }

        /// <summary>
        /// Returns the parameters with gain and offset chosen for these images, for every output that
        /// they enable, except gains that were assigned or read from a recipe. Values fill grey levels
        /// 16 to 240 around 128, those of the magnitude 0 to 240.
        /// </summary>
        /// <remarks>
        /// Makes pilot runs without height: 2 or 3 as a rule, 8 at most. Choose once for a kind of part
        /// and keep the parameters: only results with equal gains can be compared. Prepare comes next.
        /// </remarks>
        public VelostrixParameters ChooseGains(
            IEnumerable<VelostrixImage> images, VelostrixParameters parameters)
        {
            Native.Settings settings = Record(parameters?.Clone());
            using (var pins = new Pins())
            {
                Native.Image[] records = Records(images, pins);
                Check(Native.VelostrixReconstructorChooseGains(
                    Handle, records, records.Length, ref settings));
            }
            return new VelostrixParameters(settings);
        }

        /// <summary>
        /// Measures the region of the images. Of the parameters only region, run, band, scale, blur,
        /// bits, white and flat are used. Images, results and what was prepared are unchanged.
        /// </summary>
        /// <param name="images">3 to 8.</param>
        /// <param name="parameters">Those of the run.</param>
        /// <param name="names">Names in warnings; null: "image 1" and so on.</param>
        public VelostrixDiagnostics Diagnose(
            IEnumerable<VelostrixImage> images, VelostrixParameters parameters,
            IEnumerable<string> names = null)
        {
            Native.Settings settings = Record(parameters);
            var diagnostics = new Native.Diagnostics
            {
                StructSize = Marshal.SizeOf(typeof(Native.Diagnostics)),
                Exposures = new Native.Exposure[Native.MostImages],
                SingularValues = new double[Native.MostImages],
                Shifts = new double[Native.MostImages]
            };
            using (var pins = new Pins())
            {
                Native.Image[] records = Records(images, pins);
                Check(Native.VelostrixReconstructorDiagnose(
                    Handle, records, records.Length, ref settings,
                    NamePointers(names, records.Length, pins), ref diagnostics));
            }
            var warnings = new List<string>();
            var warning = new byte[Native.LongestMessage];
            for (int k = 0; k < diagnostics.WarningCount; ++k)
            {
                Check(Native.VelostrixReconstructorWarning(Handle, k, warning));
                warnings.Add(Native.Text(warning));
            }
            return new VelostrixDiagnostics(diagnostics, warnings);
        }

        static IntPtr[] NamePointers(IEnumerable<string> names, int count, Pins pins)
        {
            if (names == null) return null;
            var pointers = new List<IntPtr>();
            foreach (string name in names)
            {
                pointers.Add(pins.Pin(Encoding.UTF8.GetBytes(name + '\0')));
            }
            if (pointers.Count == count) return pointers.ToArray();
            throw new VelostrixException(
                VelostrixStatus.InvalidArgument, $"{pointers.Count} names of {count} images");
        }

        /// <summary>Frees all memory, after a run on another thread has ended.</summary>
        public void Dispose() => handle.Dispose();
    }
}
