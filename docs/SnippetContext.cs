// What the C# blocks of a page take as given: a tool, four images, and places for results.
using System;
using System.Collections.Generic;
using System.Drawing;
using System.Linq;
using System.Runtime.InteropServices;
using Velostrix;

static class Page
{
    // Stands for a camera, and for the image of an OpenCV wrapper.
    sealed class Frame
    {
        public readonly IntPtr Data = Marshal.AllocHGlobal(stride * height);
        public int Stride { get { return stride; } }
    }

    const int width = 80, height = 60, stride = 96;
    static readonly VelostrixTool tool = new VelostrixTool();
    static readonly VelostrixParameters parameters = new VelostrixParameters
    {
        Outputs = new[] { VelostrixOutput.Curvature, VelostrixOutput.Height }
    };
    static readonly List<byte[]> frames = new List<byte[]>();
    static readonly List<Frame> mats = new List<Frame>();
    static readonly Frame curvatureMat = new Frame();

    /* steps */

    static void Main()
    {
        var random = new Random(1);
        for (int lamp = 0; lamp < 4; ++lamp)
        {
            var frame = new byte[width * height];
            random.NextBytes(frame);
            frames.Add(frame);
            mats.Add(new Frame());
            Marshal.Copy(frame, 0, mats[lamp].Data, frame.Length);
        }
        /* calls */
    }
}
