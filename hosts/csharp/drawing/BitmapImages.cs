// System.Drawing's bitmaps as images; separate, so that the library does not need System.Drawing.
using System;
using System.Drawing;
using System.Drawing.Imaging;
using System.Runtime.InteropServices;

namespace Velostrix
{
    /// <summary>Images from bitmaps and bitmaps from results.</summary>
    public static class BitmapImages
    {
        /// <summary>Copies the next image into the tool.</summary>
        /// <exception cref="ArgumentException">The bitmap has colours.</exception>
        public static void SetImage(this VelostrixTool tool, Bitmap bitmap)
        {
            if (tool == null) throw new ArgumentNullException(nameof(tool));
            tool.SetImage(bitmap.ToImage());
        }

        /// <summary>Copies a grey bitmap of any pixel format, converted to 8 bits.</summary>
        /// <exception cref="ArgumentException">The bitmap has colours.</exception>
        public static VelostrixImage ToImage(this Bitmap bitmap)
        {
            if (bitmap == null) throw new ArgumentNullException(nameof(bitmap));
            int width = bitmap.Width, height = bitmap.Height;
            var pixels = new byte[width * height];
            var line = new byte[3 * width];
            BitmapData data = bitmap.LockBits(
                new Rectangle(0, 0, width, height), ImageLockMode.ReadOnly,
                PixelFormat.Format24bppRgb);
            try
            {
                for (int y = 0; y < height; ++y)
                {
                    Marshal.Copy(Row(data, y), line, 0, line.Length);
                    for (int x = 0; x < width; ++x)
                    {
                        byte level = line[3 * x];
                        if (line[3 * x + 1] != level || line[3 * x + 2] != level)
                        {
                            throw new ArgumentException(
                                $"pixel ({x}, {y}) has a colour; expected a grey bitmap");
                        }
                        pixels[y * width + x] = level;
                    }
                }
            }
            finally
            {
                bitmap.UnlockBits(data);
            }
            return new VelostrixImage(pixels, width, height);
        }

        /// <summary>Copies an 8-bit result: grey, or blue, green and red.</summary>
        /// <exception cref="InvalidOperationException">It is 16-bit, such as the height.</exception>
        public static Bitmap ToBitmap(this VelostrixImage image)
        {
            if (image == null) throw new ArgumentNullException(nameof(image));
            byte[] pixels = image.Bytes();
            bool isGrey = image.Channels == 1;
            var bitmap = new Bitmap(
                image.Width, image.Height,
                isGrey ? PixelFormat.Format8bppIndexed : PixelFormat.Format24bppRgb);
            if (isGrey)
            {
                ColorPalette palette = bitmap.Palette;  // a copy
                for (int k = 0; k < 256; ++k) palette.Entries[k] = Color.FromArgb(k, k, k);
                bitmap.Palette = palette;
            }
            BitmapData data = bitmap.LockBits(
                new Rectangle(0, 0, image.Width, image.Height), ImageLockMode.WriteOnly,
                bitmap.PixelFormat);
            for (int y = 0; y < image.Height; ++y)
            {
                Marshal.Copy(pixels, (int)(y * image.Stride), Row(data, y),
                             image.Width * image.Channels);
            }
            bitmap.UnlockBits(data);
            return bitmap;
        }

        static IntPtr Row(BitmapData data, int y)
        {
            return new IntPtr(data.Scan0.ToInt64() + (long)y * data.Stride);
        }
    }
}
