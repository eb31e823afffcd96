// What the C# blocks of a page take as given: a tool, four pictures, and images of a wrapper.
using System;
using System.Collections.Generic;
using System.Runtime.InteropServices;
using Velostrix;

static class Page
{
    // Stands for the image of an OpenCV wrapper.
    sealed class WrapperImage
    {
        public IntPtr NativePointer = NativeMat.VelostrixMatNew();
    }

    const int width = 80, height = 60, stride = 96;
    static readonly VelostrixTool tool = new VelostrixTool();
    static readonly VelostrixParameters parameters = new VelostrixParameters
    {
        Outputs = new[] { VelostrixOutput.Curvature, VelostrixOutput.Height }
    };
    static readonly List<byte[]> images = new List<byte[]>();
    static readonly List<WrapperImage> frames = new List<WrapperImage>();
    static readonly WrapperImage curvatureMat = new WrapperImage(), heightMat = new WrapperImage();
    static readonly IntPtr pixels = Marshal.AllocHGlobal(stride * height);

    /* steps */

    static void Main()
    {
        var random = new Random(1);
        for (int lamp = 0; lamp < 4; ++lamp)
        {
            var image = new byte[width * height];
            random.NextBytes(image);
            images.Add(image);
            frames.Add(new WrapperImage
            {
                NativePointer = NativeMat.VelostrixMatNewSized(height, width, 0)
            });
        }
        /* calls */
    }
}
