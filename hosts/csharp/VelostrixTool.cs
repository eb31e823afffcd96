// The tool as a C# object: prepare once, then set images and run, part after part.
using System;
using System.Collections.Generic;
using System.Runtime.InteropServices;

namespace Velostrix
{
    /// <summary>What was refused and what is expected instead.</summary>
    public sealed class VelostrixException : Exception
    {
        /// <summary>Refuses with this text.</summary>
        public VelostrixException(string text) : base(text) { }
    }

    /// <summary>
    /// A tool of the module, with buffers that are kept from part to part: about 52 + 5 N bytes a
    /// pixel until it is disposed. One thread at a time uses a tool; separate tools are independent.
    /// </summary>
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
        const int OutputCount = 8;

        // Positions of the images among the arguments of a run.
        static readonly VelostrixOutput[] RunArguments =
        {
            VelostrixOutput.Factor, VelostrixOutput.Curvature, VelostrixOutput.Magnitude,
            VelostrixOutput.Channel0, VelostrixOutput.Channel1, VelostrixOutput.Channel2,
            VelostrixOutput.Normal, VelostrixOutput.Height
        };

        struct Geometry
        {
            public int Count, Width, Height;
            public VelostrixRegion? Region;
            public double Scale;
        }

        IntPtr tool;
        IntPtr results;  // array of OutputCount images
        Geometry geometry;
        VelostrixParameters parameters;  // null until prepared
        int imagesSet;

        /// <summary>
        /// Brings the tool to `count` images of width x height pixels and to the parameters, and
        /// forgets images set so far. Allocates only when count, size, region or scale change.
        /// </summary>
        /// <exception cref="VelostrixException">An argument is refused; the tool is as it was.</exception>
        public void Prepare(int count, int width, int height, VelostrixParameters parameters)
        {
            parameters.Check(count, width, height);
            // Scaling goes by way of a region, which fixes the working size without new buffers.
            VelostrixRegion? region = parameters.Region;
            if (region == null && parameters.Scale < 1.0)
            {
                region = new VelostrixRegion(0, 0, width, height);
            }
            var wanted = new Geometry
            {
                Count = count, Width = width, Height = height, Region = region,
                Scale = parameters.Scale
            };
            bool isNew = tool == IntPtr.Zero || !wanted.Equals(geometry);
            if (isNew)
            {
                // Another tool: scaling, once on, is not switched off by later parameters.
                Free();
                Native.CreateVelostrixUnCalibrationToolPtr_CPU_csharp(out tool);
                results = NativeMat.VelostrixMatNewArray(OutputCount);
                geometry = wanted;
            }
            UnCalibrationParam record = parameters.Record(count, width, height);
            Native.SetVelostrixUnCalibrationToolParam_CPU_csharp(tool, ref record);
            if (region is VelostrixRegion r)
            {
                Native.SetVelostrixUnCalibrationToolROI_CPU_csharp(
                    tool, r.X, r.Y, r.X + r.Width - 1, r.Y + r.Height - 1);
            }
            if (isNew) Native.InitialVelostrixUnCalibrationToolImage_CPU_csharp(tool);
            Native.ClearVelostrixUnCalibrationToolImage_CPU_csharp(tool);
            this.parameters = parameters.Clone();
            imagesSet = 0;
        }

        /// <summary>Copies the next image into the tool.</summary>
        /// <param name="pixels">8-bit grey levels, row after row, stride bytes apart.</param>
        /// <param name="stride">Bytes from one row to the next; 0 = rows without gaps.</param>
        /// <exception cref="VelostrixException">
        /// The tool is not prepared, all images are set, or pixels or stride are too small.
        /// </exception>
        /// <exception cref="OutOfMemoryException">The buffers could not be allocated.</exception>
        public void SetImage(byte[] pixels, int stride = 0)
        {
            if (pixels == null) throw new ArgumentNullException(nameof(pixels));
            GCHandle pin = GCHandle.Alloc(pixels, GCHandleType.Pinned);
            try
            {
                SetPixels(pin.AddrOfPinnedObject(), pixels.Length, stride);
            }
            finally
            {
                pin.Free();
            }
        }

#if NETCOREAPP
        /// <summary>The same for pixels anywhere in memory.</summary>
        public unsafe void SetImage(ReadOnlySpan<byte> pixels, int stride = 0)
        {
            fixed (byte* first = pixels) SetPixels((IntPtr)first, pixels.Length, stride);
        }
#endif

        void SetPixels(IntPtr data, long length, int stride)
        {
            NeedRoomForImage();
            if (stride == 0) stride = geometry.Width;
            long needed = (long)stride * (geometry.Height - 1) + geometry.Width;
            if (stride < geometry.Width || length < needed)
            {
                throw new VelostrixException(
                    $"{length} bytes at a stride of {stride} are no image of {geometry.Width} x " +
                    $"{geometry.Height} pixels; expected {needed} bytes");
            }
            var record = new ImageRecord
            {
                Data = data, Width = geometry.Width, Height = geometry.Height, RowStride = stride,
                TypeCode = 1
            };
            Stored(Native.SetVelostrixUnCalibrationToolImage_CPU_csharp(tool, ref record));
        }

        /// <summary>
        /// Copies the next image into the tool, given the native pointer to a cv::Mat: 8-bit, one
        /// channel, of the prepared size.
        /// </summary>
        /// <exception cref="VelostrixException">It is not such an image, or not its turn.</exception>
        public void SetImage(IntPtr mat)
        {
            NeedRoomForImage();
            if (!NativeMat.VelostrixMatInspect(mat, out MatInfo info) || info.Type != 0 ||
                info.Cols != geometry.Width || info.Rows != geometry.Height)
            {
                throw new VelostrixException(
                    "the image is not 8-bit with one channel of " +
                    $"{geometry.Width} x {geometry.Height} pixels");
            }
            Stored(Native.SetVelostrixUnCalibrationToolImage_CPU(tool, mat));
        }

        /// <summary>Runs on the images that were set.</summary>
        /// <returns>Copies of the images that were asked for; they live as long as you like.</returns>
        /// <exception cref="VelostrixException">Images are missing.</exception>
        public VelostrixResults Run()
        {
            var mats = new Dictionary<VelostrixOutput, IntPtr>();
            for (int k = 0; k < OutputCount; ++k)
            {
                var output = (VelostrixOutput)k;
                if (parameters != null && parameters.Makes(output))
                {
                    mats[output] = NativeMat.VelostrixMatAt(results, OutputCount, k);
                }
            }
            RunInto(mats);
            var copies = new VelostrixResults(parameters);
            foreach (KeyValuePair<VelostrixOutput, IntPtr> made in mats)
            {
                copies.Add(made.Key, VelostrixImage.Copy(made.Value));
            }
            return copies;
        }

        /// <summary>
        /// Runs on the images that were set and writes to native cv::Mat objects of the host: one for
        /// each output of the parameters, for Normal also those of the channels.
        /// </summary>
        /// <remarks>
        /// Without scaling they become headers over the tool's memory (the normal image excepted):
        /// valid until the next run, Prepare with another geometry, or Dispose. Clone what must live
        /// longer.
        /// </remarks>
        /// <exception cref="VelostrixException">Images or results are missing.</exception>
        public void RunInto(IDictionary<VelostrixOutput, IntPtr> mats)
        {
            NeedPrepared();
            if (imagesSet != geometry.Count)
            {
                throw new VelostrixException($"{imagesSet} of {geometry.Count} images are set");
            }
            var m = new IntPtr[OutputCount];
            for (int k = 0; k < OutputCount; ++k)
            {
                mats.TryGetValue(RunArguments[k], out m[k]);
                if (m[k] == IntPtr.Zero && parameters.Makes(RunArguments[k]))
                {
                    throw new VelostrixException($"no cv::Mat is given for {RunArguments[k]}");
                }
            }
            if (Call(m) != 1) throw new VelostrixException("the run was refused by the module");
            imagesSet = 0;
            GC.KeepAlive(this);
        }

        int Call(IntPtr[] m)
        {
            switch (parameters.Run)
            {
                case VelostrixRun.Calibrated:
                    return Native.RunVelostrixUnCalibration_CPU_csharp_cali(
                        tool, m[0], m[1], m[2], m[3], m[4], m[5], m[6], m[7]);
                case VelostrixRun.PartRows:
                    return Native.RunVelostrixUnCalibration_CPU_partrows_csharp_uncali(
                        tool, m[0], m[1], m[2], m[3], m[4], m[5], m[6], m[7], parameters.Band);
                case VelostrixRun.PartCols:
                    return Native.RunVelostrixUnCalibration_CPU_partcols_csharp_uncali(
                        tool, m[0], m[1], m[2], m[3], m[4], m[5], m[6], m[7], parameters.Band);
                default:
                    return Native.RunVelostrixUnCalibration_CPU_csharp_uncali(
                        tool, m[0], m[1], m[2], m[3], m[4], m[5], m[6], m[7]);
            }
        }

        /// <summary>
        /// Does all for one part: images of width x height pixels, rows without gaps.
        /// </summary>
        /// <exception cref="VelostrixException">An argument is refused.</exception>
        public VelostrixResults Reconstruct(
            IList<byte[]> images, int width, int height, VelostrixParameters parameters)
        {
            Prepare(images.Count, width, height, parameters);
            foreach (byte[] image in images) SetImage(image);
            return Run();
        }

        void NeedPrepared()
        {
            if (parameters == null)
            {
                throw new VelostrixException("the tool is not prepared; call Prepare first");
            }
        }

        void NeedRoomForImage()
        {
            NeedPrepared();
            if (imagesSet == geometry.Count)
            {
                throw new VelostrixException($"all {imagesSet} images are set; Run comes next");
            }
        }

        void Stored(bool isStored)
        {
            GC.KeepAlive(this);
            if (!isStored)
            {
                Free();
                throw new OutOfMemoryException(
                    "the working buffers could not be allocated; use a region or a smaller scale");
            }
            ++imagesSet;
        }

        void Free()
        {
            if (results != IntPtr.Zero)
            {
                Native.DestroyImageArrayCPU_csharp(results);
                results = IntPtr.Zero;
            }
            if (tool != IntPtr.Zero)
            {
                Native.ReleaseVelostrixUnCalibrationToolImage_CPU_csharp(tool);
                Native.DestroyVelostrixUnCalibrationToolPtr_CPU_csharp(tool);
                tool = IntPtr.Zero;
            }
            parameters = null;
        }

        /// <summary>Gives all memory back; harmless to repeat.</summary>
        public void Dispose()
        {
            Free();
            GC.SuppressFinalize(this);
        }

        /// <summary>Gives the memory back that Dispose was not asked to.</summary>
        ~VelostrixTool()
        {
            Free();
        }
    }
}
