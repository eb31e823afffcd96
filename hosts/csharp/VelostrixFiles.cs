// The files of a folder in the order of the lamps.
using System;
using System.IO;
using System.Linq;

namespace Velostrix
{
    /// <summary>The image files of a folder.</summary>
    public static class VelostrixFiles
    {
        static readonly string[] extensions = { ".png", ".bmp", ".tif", ".tiff", ".jpg", ".jpeg" };

        /// <summary>
        /// The image files of a folder in natural order: lamp2.png before lamp10.png.
        /// </summary>
        /// <exception cref="DirectoryNotFoundException">There is no such folder.</exception>
        public static string[] Images(string folder)
        {
            string[] files = Directory.GetFiles(folder)
                .Where(file => extensions.Contains(Path.GetExtension(file).ToLowerInvariant()))
                .ToArray();
            Array.Sort(files, Native.VelostrixCompareNames);
            return files;
        }
    }
}
