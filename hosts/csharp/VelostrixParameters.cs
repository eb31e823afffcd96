// The parameters of a run, by name; reads and writes recipes.
using System;
using System.Collections.Generic;
using System.IO;
using System.Linq;
using System.Runtime.InteropServices;
using System.Text;

namespace Velostrix
{
    /// <summary>The result images of a run; all 8-bit but the height.</summary>
    public enum VelostrixOutput
    {
        /// <summary>Brightness; in the calibrated run the albedo.</summary>
        Factor,
        /// <summary>Where slopes change.</summary>
        Curvature,
        /// <summary>Changes of slope without sign.</summary>
        Magnitude,
        /// <summary>Relative height, 16-bit.</summary>
        Height,
        /// <summary>Slope along the rows; in the calibrated run the normal's x.</summary>
        Channel0,
        /// <summary>Slope across the rows; in the calibrated run the normal's y.</summary>
        Channel1,
        /// <summary>Brightness; in the calibrated run the normal's z.</summary>
        Channel2,
        /// <summary>The three channels in one image; also makes the channels.</summary>
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

    /// <summary>How slopes are differentiated in the full-frame runs.</summary>
    public enum VelostrixDifference
    {
        /// <summary>Calmer.</summary>
        Central,
        /// <summary>Resolves finer lines.</summary>
        Forward
    }

    /// <summary>
    /// How results of runs with unknown lamps are oriented, whose slopes may be mirrored or turned.
    /// </summary>
    public enum VelostrixOrientation
    {
        /// <summary>Unchanged.</summary>
        AsIs,
        /// <summary>
        /// Measured on every part and corrected: height, channels and normal are oriented as the
        /// scene. Takes one to three more runs, none of which makes the height.
        /// </summary>
        Upright
    }

    /// <summary>The rough direction of a lamp.</summary>
    public struct VelostrixLamp
    {
        /// <summary>The lamp of an image.</summary>
        /// <param name="image">Counted from 0.</param>
        /// <param name="degrees">
        /// In the images: 0 from the right, 90 from above, 180 from the left, 270 from below.
        /// </param>
        public VelostrixLamp(int image, double degrees)
        {
            Image = image;
            Degrees = degrees;
        }

        /// <summary>Index of the image that it lights.</summary>
        public int Image { get; }
        /// <summary>Its direction.</summary>
        public double Degrees { get; }
    }

    /// <summary>A rectangle in pixels of the images.</summary>
    [StructLayout(LayoutKind.Sequential)]
    public struct VelostrixRegion
    {
        /// <summary>A rectangle by all its values.</summary>
        public VelostrixRegion(int x, int y, int width, int height)
        {
            X = x;
            Y = y;
            Width = width;
            Height = height;
        }

        /// <summary>First column.</summary>
        public int X { get; }
        /// <summary>First row.</summary>
        public int Y { get; }
        /// <summary>Columns.</summary>
        public int Width { get; }
        /// <summary>Rows.</summary>
        public int Height { get; }
    }

    /// <summary>
    /// A number for each output. Numbers that are assigned, chosen or read from a recipe are kept by
    /// ChooseGains and in recipes.
    /// </summary>
    public sealed class VelostrixOutputValues<T>
    {
        internal T[] Values;
        internal uint Kept;
        readonly Func<T[]> defaults;

        internal VelostrixOutputValues(T[] values, uint kept, Func<T[]> defaults)
        {
            Values = (T[])values.Clone();
            Kept = kept;
            this.defaults = defaults;
        }

        /// <summary>The number of an output.</summary>
        public T this[VelostrixOutput output]
        {
            get { return Values[(int)output]; }
            set
            {
                Values[(int)output] = value;
                Kept |= 1u << (int)output;
            }
        }

        /// <summary>Whether the number of this output is kept.</summary>
        public bool IsKept(VelostrixOutput output) => (Kept >> (int)output & 1) != 0;

        /// <summary>Restores the defaults, which ChooseGains may replace.</summary>
        public void Release()
        {
            Values = defaults();
            Kept = 0;
        }
    }

    /// <summary>
    /// What a run does. Number and size of the images come from the images themselves. Values are
    /// checked at their use: by Prepare, Check and others.
    /// </summary>
    public sealed class VelostrixParameters
    {
        Native.Settings record;

        /// <summary>The defaults.</summary>
        public VelostrixParameters() : this(Defaults()) { }

        internal VelostrixParameters(Native.Settings record)
        {
            this.record = record;
            Gains = new VelostrixOutputValues<double>(
                record.Gain, record.KeptGains, () => Defaults().Gain);
            Offsets = new VelostrixOutputValues<int>(
                record.Offset, record.KeptOffsets, () => Defaults().Offset);
        }

        static Native.Settings Defaults()
        {
            Native.Settings record = Native.Settings.Empty();
            Native.Check(Native.VelostrixSettingsDefaults(ref record));
            return record;
        }

        internal Native.Settings Record()
        {
            Native.Settings complete = record;
            complete.Gain = Gains.Values;
            complete.Offset = Offsets.Values;
            complete.KeptGains = Gains.Kept;
            complete.KeptOffsets = Offsets.Kept;
            return complete;
        }

        /// <summary>Which run; uncalibrated by default.</summary>
        public VelostrixRun Run { get => (VelostrixRun)record.Run; set => record.Run = (int)value; }

        /// <summary>
        /// Rows or columns of a piece of the partial runs; below 10 counts as 10; default 64.
        /// </summary>
        public int Band { get => record.Band; set => record.Band = value; }

        /// <summary>Which images to make; default all.</summary>
        /// <exception cref="ArgumentNullException">Set to null.</exception>
        public IEnumerable<VelostrixOutput> Outputs
        {
            get
            {
                var outputs = new List<VelostrixOutput>();
                for (int k = 0; k < Native.OutputCount; ++k)
                {
                    if ((record.Outputs >> k & 1) != 0) outputs.Add((VelostrixOutput)k);
                }
                return outputs;
            }
            set
            {
                if (value == null) throw new ArgumentNullException(nameof(value));
                uint outputs = 0;
                foreach (VelostrixOutput output in value) outputs |= 1u << (int)output;
                record.Outputs = outputs;
            }
        }

        /// <summary>Inside the images, at least 3 x 2 pixels; null (default): the whole image.</summary>
        public VelostrixRegion? Region
        {
            get { return record.HasRegion != 0 ? record.Region : (VelostrixRegion?)null; }
            set
            {
                record.HasRegion = value.HasValue ? 1 : 0;
                record.Region = value.GetValueOrDefault();
            }
        }

        /// <summary>Evens out the column brightness of every image first; default false.</summary>
        public bool Equalise { get => record.Equalise != 0; set => record.Equalise = value ? 1 : 0; }

        /// <summary>
        /// Above 0, at most 1 (default). Below 0.99 images are scaled by it, unless that would leave
        /// 10 pixels or fewer; results have full size.
        /// </summary>
        public double Scale { get => record.Scale; set => record.Scale = value; }

        /// <summary>Differences of the slopes; central by default; ignored by the partial runs.</summary>
        public VelostrixDifference Difference
        {
            get => (VelostrixDifference)record.Difference;
            set => record.Difference = (int)value;
        }

        /// <summary>
        /// Radius in pixels, 0 (default) to 32767, of the smoothing of curvature and magnitude.
        /// </summary>
        public int BlurRadius { get => record.BlurRadius; set => record.BlurRadius = value; }

        /// <summary>Of the height; default 50, 0 = flat, negative = until it converges.</summary>
        public int IterationCap { get => record.IterationCap; set => record.IterationCap = value; }

        /// <summary>Whether the orientation is corrected; as-is by default.</summary>
        public VelostrixOrientation Orientation
        {
            get => (VelostrixOrientation)record.Orientation;
            set => record.Orientation = (int)value;
        }

        /// <summary>Upright: determines the sign; null (default): bumps may appear as dents.</summary>
        public VelostrixLamp? Lamp
        {
            get
            {
                if (record.Lamp < 0) return null;
                return new VelostrixLamp(record.Lamp, record.LampDegrees);
            }
            set
            {
                record.Lamp = value?.Image ?? -1;
                record.LampDegrees = value?.Degrees ?? 0;
            }
        }

        /// <summary>
        /// Bits in use of 16-bit samples, 8 to 16; 0 (default): not given.
        /// </summary>
        public int Bits { get => record.Bits; set => record.Bits = value; }

        /// <summary>
        /// The 16-bit sample that is white, 1 to 65535: level = sample * 255 / White, at most 255;
        /// 0 (default): 2^Bits - 1. Without either, 16-bit images are refused.
        /// </summary>
        public int White { get => record.White; set => record.White = value; }

        /// <summary>
        /// The flat fields of the lamps, 15 coefficients each, by which images are divided; empty
        /// (default): none. FitFlat makes them.
        /// </summary>
        /// <exception cref="ArgumentException">A field has another number, or there are more than 8.</exception>
        public IReadOnlyList<double[]> Flat
        {
            get => Enumerable.Range(0, record.FlatCount).Select(lamp =>
                record.Flat.Skip(lamp * Native.FlatTerms).Take(Native.FlatTerms).ToArray()).ToArray();
            set
            {
                if (value == null) throw new ArgumentNullException(nameof(value));
                if (value.Count > Native.MostImages || value.Any(f => f.Length != Native.FlatTerms))
                {
                    throw new ArgumentException("expected at most 8 fields of 15 numbers", nameof(value));
                }
                record.FlatCount = value.Count;
                record.Flat = new double[Native.MostImages * Native.FlatTerms];
                value.SelectMany(field => field).ToArray().CopyTo(record.Flat, 0);
            }
        }

        /// <summary>
        /// Every image is divided by a smooth fit of its lamp's reference. This evens out light that
        /// falls off across the image. Stains and dust on the flat part have no effect.
        /// </summary>
        /// <param name="references">
        /// One image of a flat, matt part under each lamp, in the order of the images.
        /// </param>
        /// <exception cref="VelostrixException">A reference is saturated or dark.</exception>
        public void FitFlat(IEnumerable<VelostrixImage> references)
        {
            Native.Settings settings = Record();
            var message = new byte[Native.LongestMessage];
            using (var pins = new Pins())
            {
                Native.Image[] records = VelostrixTool.Records(references, pins);
                Native.Check(
                    Native.VelostrixFitFlat(records, records.Length, ref settings, message), message);
            }
            record.FlatCount = settings.FlatCount;
            record.Flat = settings.Flat;
        }

        /// <summary>
        /// Grey levels per unit of the map; Factor: multiplies the normalised image; Normal, Height:
        /// not read. An output whose gain is assigned also keeps its offset.
        /// </summary>
        public VelostrixOutputValues<double> Gains { get; }

        /// <summary>Grey level of value 0; Factor, Normal, Height: not read.</summary>
        public VelostrixOutputValues<int> Offsets { get; }

        /// <summary>Refuses what Prepare would refuse for such images.</summary>
        /// <exception cref="VelostrixException">Says what is refused and what is expected.</exception>
        public void Check(int count, int width, int height)
        {
            Native.Settings settings = Record();
            var message = new byte[Native.LongestMessage];
            Native.Check(
                Native.VelostrixSettingsCheck(ref settings, count, width, height, message), message);
        }

        /// <summary>An independent copy.</summary>
        public VelostrixParameters Clone() => new VelostrixParameters(Record());

        /// <summary>A recipe in JSON, with the gains and offsets that are kept.</summary>
        /// <exception cref="VelostrixException">The parameters fit no images.</exception>
        public string ToJson()
        {
            Native.Settings settings = Record();
            var text = new byte[Native.LongestRecipe];
            var message = new byte[Native.LongestMessage];
            Native.Check(
                Native.VelostrixSettingsToJson(
                    ref settings, text, text.Length, out long length, message),
                message);
            return Encoding.UTF8.GetString(text, 0, (int)length);
        }

        /// <summary>
        /// Reads a recipe, or a run.json of the command line. Missing fields have their defaults;
        /// ChooseGains keeps gains and offsets of the recipe.
        /// </summary>
        /// <exception cref="VelostrixException">It is not a recipe; the message names the field.</exception>
        public static VelostrixParameters FromJson(string json)
        {
            if (json == null) throw new ArgumentNullException(nameof(json));
            Native.Settings settings = Native.Settings.Empty();
            byte[] text = Encoding.UTF8.GetBytes(json);
            var message = new byte[Native.LongestMessage];
            Native.Check(
                Native.VelostrixSettingsFromJson(text, text.Length, ref settings, message), message);
            return new VelostrixParameters(settings);
        }

        /// <summary>Writes a recipe to a file.</summary>
        public void Save(string path) => File.WriteAllText(path, ToJson());

        /// <summary>Reads the recipe in a file.</summary>
        /// <exception cref="VelostrixException">
        /// It is not a recipe; the message names file and field.
        /// </exception>
        public static VelostrixParameters Load(string path)
        {
            try
            {
                return FromJson(File.ReadAllText(path));
            }
            catch (VelostrixException error)
            {
                throw new VelostrixException(error.Status, $"{path}: {error.Message}");
            }
        }
    }
}
