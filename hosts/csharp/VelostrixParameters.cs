// What a run does and what it gives, by names.
using System;
using System.Collections.Generic;
using System.Linq;
using System.Runtime.InteropServices;

namespace Velostrix
{
    /// <summary>The result images of a run; all 8-bit but the height.</summary>
    public enum VelostrixOutput
    {
        /// <summary>Brightness; in the calibrated run the albedo.</summary>
        Factor,
        /// <summary>Where slopes change.</summary>
        Curvature,
        /// <summary>The same without sign.</summary>
        Magnitude,
        /// <summary>Relative height, 16-bit.</summary>
        Height,
        /// <summary>Slope along the rows; in the calibrated run the normal's x.</summary>
        Channel0,
        /// <summary>Slope across the rows; in the calibrated run the normal's y.</summary>
        Channel1,
        /// <summary>Brightness; in the calibrated run the normal's z.</summary>
        Channel2,
        /// <summary>The three channels in one image; brings them with it.</summary>
        Normal
    }

    /// <summary>The four runs.</summary>
    public enum VelostrixRun
    {
        /// <summary>Lamps unknown, the whole frame at once.</summary>
        Uncalibrated,
        /// <summary>Lamps in the fixed ring that follows from their number.</summary>
        Calibrated,
        /// <summary>Lamps unknown, band by band of rows.</summary>
        PartRows,
        /// <summary>Lamps unknown, strip by strip of columns.</summary>
        PartCols
    }

    /// <summary>A rectangle in pixels of the images.</summary>
    public struct VelostrixRegion
    {
        /// <summary>First column.</summary>
        public int X;
        /// <summary>First row.</summary>
        public int Y;
        /// <summary>Columns.</summary>
        public int Width;
        /// <summary>Rows.</summary>
        public int Height;

        /// <summary>A rectangle by all its values.</summary>
        public VelostrixRegion(int x, int y, int width, int height)
        {
            X = x;
            Y = y;
            Width = width;
            Height = height;
        }
    }

    /// <summary>
    /// What a run does, with readable defaults. Number and size of the images come from the images.
    /// </summary>
    public sealed class VelostrixParameters
    {
        /// <summary>Which run.</summary>
        public VelostrixRun Run = VelostrixRun.Uncalibrated;

        /// <summary>Rows or columns of a piece of the partial runs; below 10 counts as 10.</summary>
        public int Band = 64;

        /// <summary>Which images to make; all of them unless told.</summary>
        public VelostrixOutput[] Outputs =
            (VelostrixOutput[])Enum.GetValues(typeof(VelostrixOutput));

        /// <summary>Inside the images, at least 3 x 2 pixels; null = whole image.</summary>
        public VelostrixRegion? Region;

        /// <summary>
        /// Above 0, at most 1. Below 0.99 the tool works on images scaled by it, unless that would
        /// leave 10 pixels or fewer; results come in full size.
        /// </summary>
        public double Scale = 1.0;

        /// <summary>Evens out the column brightness of every image first.</summary>
        public bool Equalise;

        /// <summary>Forward instead of central differences of the slopes.</summary>
        public bool ForwardDifferences;

        /// <summary>Radius in pixels, 0 to 32767, of the smoothing of curvature and magnitude.</summary>
        public int BlurRadius;

        /// <summary>Of the height at most; 0 = flat, negative = as many as it takes.</summary>
        public int IterationCap = 50;

        /// <summary>Multiplies the factor image, which is normalised to 0..255.</summary>
        public double FactorGain = 1.0;

        /// <summary>Of the curvature image.</summary>
        public OutputScaling Curvature = new OutputScaling(128, 256.0);

        /// <summary>Of the magnitude image.</summary>
        public OutputScaling Magnitude = new OutputScaling(0, 256.0);

        /// <summary>Of the channel 0 image.</summary>
        public OutputScaling Channel0 = new OutputScaling(128, 128.0);

        /// <summary>Of the channel 1 image.</summary>
        public OutputScaling Channel1 = new OutputScaling(128, 128.0);

        /// <summary>
        /// Of the channel 2 image. No default suits the uncalibrated runs, whose values are about
        /// 1 / sqrt(pixels): see <see cref="AutoGain.Choose"/>.
        /// </summary>
        public OutputScaling Channel2 = new OutputScaling(128, 127.0);

        /// <summary>The outputs that a gain and an offset bring to grey levels.</summary>
        public static readonly VelostrixOutput[] ScaledOutputs =
        {
            VelostrixOutput.Curvature, VelostrixOutput.Magnitude, VelostrixOutput.Channel0,
            VelostrixOutput.Channel1, VelostrixOutput.Channel2
        };

        /// <summary>Gain and offset of one of <see cref="ScaledOutputs"/>.</summary>
        public OutputScaling this[VelostrixOutput output]
        {
            get { return Scaling(output); }
            set { Scaling(output) = value; }
        }

        ref OutputScaling Scaling(VelostrixOutput output)
        {
            switch (output)
            {
                case VelostrixOutput.Curvature: return ref Curvature;
                case VelostrixOutput.Magnitude: return ref Magnitude;
                case VelostrixOutput.Channel0: return ref Channel0;
                case VelostrixOutput.Channel1: return ref Channel1;
                case VelostrixOutput.Channel2: return ref Channel2;
                default: throw new VelostrixException($"{output} has no gain and offset");
            }
        }

        /// <summary>Whether a run makes this image.</summary>
        public bool Makes(VelostrixOutput output)
        {
            bool isChannel = output == VelostrixOutput.Channel0 ||
                             output == VelostrixOutput.Channel1 || output == VelostrixOutput.Channel2;
            return Outputs.Contains(output) || (isChannel && Outputs.Contains(VelostrixOutput.Normal));
        }

        /// <summary>Pixels that the tool works on for images of width x height.</summary>
        public long WorkingPixels(int width, int height)
        {
            VelostrixRegion r = Region ?? new VelostrixRegion(0, 0, width, height);
            double scaledWidth = r.Width * Scale, scaledHeight = r.Height * Scale;
            bool isScaled = Scale < 0.99 && scaledWidth > 10.0 && scaledHeight > 10.0;
            return isScaled ? (long)scaledWidth * (long)scaledHeight : (long)r.Width * r.Height;
        }

        /// <summary>A copy that shares nothing.</summary>
        public VelostrixParameters Clone()
        {
            var copy = (VelostrixParameters)MemberwiseClone();
            copy.Outputs = (VelostrixOutput[])Outputs.Clone();
            return copy;
        }

        /// <summary>Refuses what a run on such images would refuse.</summary>
        /// <exception cref="VelostrixException">Says what was refused and what is expected.</exception>
        public void Check(int count, int width, int height)
        {
            Need(count >= 3 && count <= 8, $"{count} images given; expected 3 to 8");
            VelostrixRegion r = Region ?? new VelostrixRegion(0, 0, width, height);
            Need(r.X >= 0 && r.Y >= 0 && (long)r.X + r.Width <= width &&
                     (long)r.Y + r.Height <= height,
                 $"the region of {r.Width} x {r.Height} pixels at ({r.X}, {r.Y}) is not inside the " +
                     $"images of {width} x {height} pixels");
            Need(r.Width >= 3 && r.Height >= 2,
                 $"{r.Width} x {r.Height} pixels to work on; expected at least 3 x 2");
            Need(Scale > 0.0 && Scale <= 1.0, $"scale {Scale}; expected above 0, at most 1");
            Need(BlurRadius >= 0 && BlurRadius <= 32767,
                 $"blur radius {BlurRadius}; expected 0 to 32767");
            double gains = FactorGain + ScaledOutputs.Sum(output => this[output].Gain);
            Need(!double.IsNaN(gains) && !double.IsInfinity(gains), "a gain is not finite");
            Need(Outputs != null, "the outputs are null");
            Need(Enum.IsDefined(typeof(VelostrixRun), Run), $"run {Run} is unknown");
        }

        static void Need(bool isSo, string otherwise)
        {
            if (!isSo) throw new VelostrixException(otherwise);
        }

        internal UnCalibrationParam Record(int count, int width, int height)
        {
            Func<VelostrixOutput, int> on = output => Outputs.Contains(output) ? 1 : 0;
            return new UnCalibrationParam
            {
                ImageCount = count,
                Width = width,
                Height = height,
                RowStep = width,
                FactorOn = on(VelostrixOutput.Factor),
                CurvatureOn = on(VelostrixOutput.Curvature),
                MagnitudeOn = on(VelostrixOutput.Magnitude),
                HeightOn = on(VelostrixOutput.Height),
                Channel0On = on(VelostrixOutput.Channel0),
                Channel1On = on(VelostrixOutput.Channel1),
                Channel2On = on(VelostrixOutput.Channel2),
                NormalOn = on(VelostrixOutput.Normal),
                Scale = Scale,
                DifferenceMode = ForwardDifferences ? 1 : 0,
                BlurRadius = BlurRadius,
                IterationCap = IterationCap,
                FactorGain = FactorGain,
                Curvature = Curvature,
                Magnitude = Magnitude,
                Channel0 = Channel0,
                Channel1 = Channel1,
                Channel2 = Channel2,
                EqualiseOn = Equalise ? 1 : 0
            };
        }
    }

    /// <summary>One result image, in managed memory.</summary>
    public sealed class VelostrixImage
    {
        /// <summary>Columns.</summary>
        public readonly int Width;
        /// <summary>Rows.</summary>
        public readonly int Height;
        /// <summary>1, or 3 for the normal image.</summary>
        public readonly int Channels;

        readonly byte[] bytes;     // of 8-bit images
        readonly ushort[] levels;  // of the height

        VelostrixImage(MatInfo info)
        {
            const int Word = 2;  // OpenCV's number of 16-bit unsigned
            Width = info.Cols;
            Height = info.Rows;
            long samples = (long)info.Rows * info.Cols;
            if (info.Type == Word)
            {
                Channels = 1;
                levels = new ushort[samples];
            }
            else
            {
                Channels = info.PixelBytes;
                bytes = new byte[samples * Channels];
            }
        }

        /// <summary>Copies the cv::Mat at a native pointer.</summary>
        /// <exception cref="VelostrixException">It is empty or of a type that no run gives.</exception>
        public static VelostrixImage Copy(IntPtr mat)
        {
            if (!NativeMat.VelostrixMatInspect(mat, out MatInfo info) || info.Rows == 0 ||
                (info.Type != 0 && info.Type != 2 && info.Type != 16))
            {
                throw new VelostrixException("not a result image: empty, or of another type");
            }
            var image = new VelostrixImage(info);
            Array samples = (Array)image.bytes ?? image.levels;
            GCHandle pin = GCHandle.Alloc(samples, GCHandleType.Pinned);
            try
            {
                NativeMat.VelostrixMatCopyTo(
                    mat, pin.AddrOfPinnedObject(), (long)info.Rows * info.Cols * info.PixelBytes);
            }
            finally
            {
                pin.Free();
            }
            return image;
        }

        /// <summary>Grey levels, row after row, without gaps; the image's own array.</summary>
        /// <exception cref="VelostrixException">The image is the height.</exception>
        public byte[] Bytes()
        {
            return bytes ?? throw new VelostrixException("the height is 16-bit; call Levels");
        }

        /// <summary>Heights, row after row, without gaps; the image's own array.</summary>
        /// <exception cref="VelostrixException">The image is not the height.</exception>
        public ushort[] Levels()
        {
            return levels ?? throw new VelostrixException("the image is 8-bit; call Bytes");
        }
    }

    /// <summary>The images that a run made, by name.</summary>
    public sealed class VelostrixResults
    {
        readonly SortedDictionary<VelostrixOutput, VelostrixImage> images =
            new SortedDictionary<VelostrixOutput, VelostrixImage>();

        /// <summary>The parameters of the run.</summary>
        public readonly VelostrixParameters Parameters;

        internal VelostrixResults(VelostrixParameters parameters)
        {
            Parameters = parameters.Clone();
        }

        internal void Add(VelostrixOutput output, VelostrixImage image)
        {
            images.Add(output, image);
        }

        /// <summary>Which images were made.</summary>
        public IEnumerable<VelostrixOutput> Made { get { return images.Keys; } }

        /// <summary>An image that was asked for.</summary>
        /// <exception cref="VelostrixException">It was not asked for.</exception>
        public VelostrixImage this[VelostrixOutput output]
        {
            get
            {
                if (images.TryGetValue(output, out VelostrixImage image)) return image;
                throw new VelostrixException($"{output} was not among the outputs of the run");
            }
        }
    }
}
