// Images in the application's memory, which a tool reads and returns.
using System;
using System.Collections.Generic;

namespace Velostrix
{
    /// <summary>The surface that a view of a height subtracts.</summary>
    public enum VelostrixSurface
    {
        /// <summary>A tilt.</summary>
        Plane = 0,
        /// <summary>A tilt and a bowl, as lamps near the part cause.</summary>
        Quadratic = 1
    }

    /// <summary>An image in managed or native memory, which it does not own.</summary>
    public sealed class VelostrixImage
    {
        readonly Array samples;  // null: native memory
        readonly IntPtr data;

        VelostrixImage(Array samples, IntPtr data, int width, int height, long stride,
                       int sampleBytes, int channels)
        {
            this.samples = samples;
            this.data = data;
            Width = width;
            Height = height;
            Channels = channels;
            SampleBytes = sampleBytes;
            Stride = stride != 0 ? stride : (long)width * channels * sampleBytes;
        }

        /// <summary>8-bit grey levels, row after row.</summary>
        /// <param name="pixels">Kept by reference.</param>
        /// <param name="width">Pixels.</param>
        /// <param name="height">Pixels.</param>
        /// <param name="stride">Bytes from one row to the next; 0 = rows without gaps.</param>
        /// <exception cref="VelostrixException">There are fewer bytes than that.</exception>
        public VelostrixImage(byte[] pixels, int width, int height, int stride = 0)
            : this(pixels, IntPtr.Zero, width, height, stride, 1, 1)
        {
            NeedLength();
        }

        /// <summary>
        /// The same for 16-bit samples; <see cref="VelostrixParameters.White"/> or
        /// <see cref="VelostrixParameters.Bits"/> has to be set.
        /// </summary>
        public VelostrixImage(ushort[] samples, int width, int height, int stride = 0)
            : this(samples, IntPtr.Zero, width, height, stride, 2, 1)
        {
            NeedLength();
        }

        /// <summary>Pixels in native memory, such as a camera's or those of an OpenCV wrapper.</summary>
        /// <param name="data">First pixel; valid as long as the image is used.</param>
        /// <param name="width">Pixels.</param>
        /// <param name="height">Pixels.</param>
        /// <param name="stride">Bytes from one row to the next; 0 = rows without gaps.</param>
        /// <param name="sampleBytes">1 or 2.</param>
        /// <param name="channels">1; 3 for a place for the normal image.</param>
        /// <exception cref="ArgumentNullException">The address is zero.</exception>
        public VelostrixImage(
            IntPtr data, int width, int height, long stride, int sampleBytes = 1, int channels = 1)
            : this(null, data, width, height, stride, sampleBytes, channels)
        {
            if (data == IntPtr.Zero) throw new ArgumentNullException(nameof(data));
        }

        // Memory for a result.
        internal VelostrixImage(Native.Plane plane)
            : this(Room(plane), IntPtr.Zero, plane.Width, plane.Height, 0, plane.SampleBytes,
                   plane.Channels)
        {
        }

        static Array Room(Native.Plane plane)
        {
            long count = (long)plane.Width * plane.Height * plane.Channels;
            return plane.SampleBytes == 2 ? (Array)new ushort[count] : new byte[count];
        }

        void NeedLength()
        {
            if (samples == null) throw new ArgumentNullException("pixels");
            long length = (long)samples.Length * SampleBytes;
            if (length < Capacity)
            {
                throw new VelostrixException(
                    VelostrixStatus.InvalidArgument,
                    $"{length} bytes at a stride of {Stride} are no image of {Width} x {Height} " +
                    $"pixels; expected {Capacity} bytes");
            }
        }

        /// <summary>Columns.</summary>
        public int Width { get; }
        /// <summary>Rows.</summary>
        public int Height { get; }
        /// <summary>1, or 3 for the normal image.</summary>
        public int Channels { get; }
        /// <summary>1, or 2 for 16-bit samples.</summary>
        public int SampleBytes { get; }
        /// <summary>Bytes from one row to the next.</summary>
        public long Stride { get; }

        // Bytes from the first sample to the last.
        internal long Capacity => Stride * (Height - 1) + (long)Width * Channels * SampleBytes;

        internal IntPtr Address(Pins pins) => samples == null ? data : pins.Pin(samples);

        /// <summary>
        /// A height for display: 8 bits, without tilt and bowl; all but the outermost half percent on
        /// each side fill the levels.
        /// </summary>
        /// <param name="removed">The surface, fitted by least squares, that is subtracted.</param>
        /// <param name="border">
        /// Pixels on each side that surface and range are measured without, at most an eighth of the
        /// shorter side; iteration cap / scale is a good number.
        /// </param>
        /// <param name="mask">
        /// 8-bit, as large; pixels where it is 0 are left out of surface and range, and black. Null:
        /// none.
        /// </param>
        /// <exception cref="VelostrixException">
        /// The image is not 16-bit, or the mask is not 8-bit or as large.
        /// </exception>
        public VelostrixImage HeightView(
            VelostrixSurface removed = VelostrixSurface.Quadratic, int border = 50,
            VelostrixImage mask = null)
        {
            var view = new VelostrixImage(new byte[(long)Width * Height], Width, Height);
            var message = new byte[Native.LongestMessage];
            using (var pins = new Pins())
            {
                Native.Image height = VelostrixTool.Record(this, "height", pins);
                Native.Check(
                    Native.VelostrixViewHeight(
                        ref height, removed, border,
                        mask == null ? null : new[] { VelostrixTool.Record(mask, nameof(mask), pins) },
                        view.Address(pins), 0, view.Capacity, IntPtr.Zero, message),
                    message);
            }
            return view;
        }

        /// <summary>The array of 8-bit pixels. Results have rows without gaps.</summary>
        /// <exception cref="InvalidOperationException">16-bit, or in native memory.</exception>
        public byte[] Bytes() => samples as byte[] ?? throw new InvalidOperationException(
            samples == null ? "the pixels are in native memory" : "16-bit; call Levels");

        /// <summary>The array of 16-bit samples, such as heights.</summary>
        /// <exception cref="InvalidOperationException">8-bit, or in native memory.</exception>
        public ushort[] Levels() => samples as ushort[] ?? throw new InvalidOperationException(
            samples == null ? "the pixels are in native memory" : "8-bit; call Bytes");
    }

    /// <summary>The result images of a run, by name.</summary>
    public sealed class VelostrixResults
    {
        readonly SortedDictionary<VelostrixOutput, VelostrixImage> images =
            new SortedDictionary<VelostrixOutput, VelostrixImage>();

        internal VelostrixResults() { }

        internal void Add(VelostrixOutput output, VelostrixImage image) => images.Add(output, image);

        /// <summary>Which images were made.</summary>
        public IEnumerable<VelostrixOutput> Made => images.Keys;

        /// <summary>An image that was requested.</summary>
        /// <exception cref="KeyNotFoundException">It was not requested.</exception>
        public VelostrixImage this[VelostrixOutput output]
        {
            get => images.TryGetValue(output, out VelostrixImage image)
                ? image
                : throw new KeyNotFoundException($"{output} was not among the outputs of the run");
        }
    }
}
