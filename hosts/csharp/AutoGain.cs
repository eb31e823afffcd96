// Gains that make the result images readable without tuning, by the same search as in C++.
using System;
using System.Collections.Generic;
using System.Linq;

namespace Velostrix
{
    /// <summary>The choice of gains.</summary>
    public static class AutoGain
    {
        const int MostPilots = 8;

        // The search for the gain of one output.
        sealed class Search
        {
            const double Stride = 16.0;
            const int ReadableReach = 4;
            const int PreciseReach = 32;        // one level is 3 percent
            const double MostGrowth = 256.0;    // what is flatter yet is quantisation, not relief
            const double WholeRange = 240.0;

            public readonly VelostrixOutput Output;
            public bool IsDone;
            readonly double usualGain;
            readonly int zeroLevel;  // offset of the pilots
            double gain;
            int below, above;  // how far the levels of the latest pilot lie from its zero level
            bool isReadable;

            public Search(VelostrixOutput output, double usualGain)
            {
                Output = output;
                this.usualGain = gain = usualGain;
                zeroLevel = output == VelostrixOutput.Magnitude ? 0 : 128;
            }

            public OutputScaling Pilot { get { return new OutputScaling(zeroLevel, gain); } }

            int TargetReach { get { return 240 - zeroLevel; } }

            public void Learn(byte[] image)
            {
                MeasureReach(image);
                int widest = Math.Max(below, above);
                bool isSaturated = widest >= 255 - zeroLevel;
                isReadable = !isSaturated && widest >= ReadableReach;
                if (isReadable)
                {
                    IsDone = widest >= PreciseReach;
                    gain *= (double)TargetReach / widest;
                }
                else if (isSaturated)
                {
                    gain /= Stride;
                }
                else if (gain >= MostGrowth * usualGain)
                {
                    IsDone = true;
                }
                else
                {
                    gain *= Stride;
                }
            }

            // Leaves the outermost percent on each side out.
            void MeasureReach(byte[] image)
            {
                var histogram = new long[256];
                foreach (byte level in image) ++histogram[level];
                long percent = image.Length / 100;
                int low = 0;
                for (long count = histogram[low]; count <= percent;) count += histogram[++low];
                int high = 255;
                for (long count = histogram[high]; count <= percent;) count += histogram[--high];
                below = Math.Max(0, zeroLevel - low);
                above = Math.Max(0, high - zeroLevel);
            }

            public OutputScaling Found()
            {
                if (!isReadable) return new OutputScaling(zeroLevel, usualGain);
                bool isBrightness =
                    Output == VelostrixOutput.Channel2 && Math.Min(below, above) == 0;
                if (!isBrightness) return new OutputScaling(zeroLevel, gain);
                return new OutputScaling(
                    0, gain * WholeRange / TargetReach * (above > 0 ? 1.0 : -1.0));
            }
        }

        /// <summary>
        /// Returns the parameters with gain and offset of every output that they ask for chosen for
        /// these images, but for those to keep (Factor, Normal and Height have nothing to choose).
        /// Without the outermost percent on each side, values fill grey levels 16 to 240 around 128,
        /// those of the magnitude 0 to 240. Channel 2, when all its values have one sign, is a
        /// brightness and fills 0 to 240 too, by a negative gain if need be. A flat map keeps the
        /// gain that suits usual relief.
        /// </summary>
        /// <remarks>
        /// Does this by pilot runs without height, 2 or 3 as a rule and 8 at most. Choose once for a
        /// kind of part and keep the parameters: only under equal gains can parts be compared.
        /// </remarks>
        /// <exception cref="VelostrixException">An argument is refused.</exception>
        public static VelostrixParameters Choose(
            VelostrixTool tool, IList<byte[]> images, int width, int height,
            VelostrixParameters parameters, params VelostrixOutput[] keep)
        {
            parameters.Check(images.Count, width, height);
            double pixels = parameters.WorkingPixels(width, height);
            var searches = new List<Search>();
            foreach (VelostrixOutput output in VelostrixParameters.ScaledOutputs)
            {
                if (!parameters.Makes(output) || keep.Contains(output)) continue;
                // A singular vector has unit length.
                bool isUnitVector = output == VelostrixOutput.Channel2 &&
                                    parameters.Run != VelostrixRun.Calibrated;
                double usualGain = isUnitVector ? 64.0 * Math.Sqrt(pixels) : 128.0;
                searches.Add(new Search(output, usualGain));
            }

            for (int k = 0; k < MostPilots; ++k)
            {
                List<Search> open = searches.Where(search => !search.IsDone).ToList();
                if (open.Count == 0) break;
                VelostrixParameters pilot = parameters.Clone();
                pilot.Outputs = open.Select(search => search.Output).ToArray();
                foreach (Search search in open) pilot[search.Output] = search.Pilot;
                VelostrixResults results = tool.Reconstruct(images, width, height, pilot);
                foreach (Search search in open) search.Learn(results[search.Output].Bytes());
            }

            VelostrixParameters chosen = parameters.Clone();
            foreach (Search search in searches) chosen[search.Output] = search.Found();
            return chosen;
        }
    }
}
