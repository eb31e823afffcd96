// The flat interface as C# sees it: the records with their layouts and every entry point.
using System;
using System.Runtime.InteropServices;

namespace Velostrix
{
    /// <summary>How one map becomes an 8-bit image: level = saturate(value * gain + offset).</summary>
    [StructLayout(LayoutKind.Explicit, Size = 16)]
    public struct OutputScaling
    {
        /// <summary>Grey levels, added after the gain.</summary>
        [FieldOffset(0)] public int Offset;

        /// <summary>Grey levels per unit of the map.</summary>
        [FieldOffset(8)] public double Gain;

        /// <summary>A scaling by both its values.</summary>
        public OutputScaling(int offset, double gain)
        {
            Offset = offset;
            Gain = gain;
        }
    }

    /// <summary>The parameter record, 200 bytes. Most hosts use <see cref="VelostrixParameters"/>.</summary>
    [StructLayout(LayoutKind.Explicit, Size = 200)]
    public struct UnCalibrationParam
    {
        /// <summary>Images of one run, 3 to 8.</summary>
        [FieldOffset(0)] public int ImageCount;

        /// <summary>Pixels.</summary>
        [FieldOffset(4)] public int Width;

        /// <summary>Pixels.</summary>
        [FieldOffset(8)] public int Height;

        /// <summary>Elements from one row to the next: at least the width.</summary>
        [FieldOffset(12)] public int RowStep;

        /// <summary>Non-zero makes the factor image.</summary>
        [FieldOffset(16)] public int FactorOn;

        /// <summary>Non-zero makes the curvature image.</summary>
        [FieldOffset(20)] public int CurvatureOn;

        /// <summary>Non-zero makes the magnitude image.</summary>
        [FieldOffset(24)] public int MagnitudeOn;

        /// <summary>Non-zero makes the height image.</summary>
        [FieldOffset(28)] public int HeightOn;

        /// <summary>Non-zero makes the channel 0 image.</summary>
        [FieldOffset(32)] public int Channel0On;

        /// <summary>Non-zero makes the channel 1 image.</summary>
        [FieldOffset(36)] public int Channel1On;

        /// <summary>Non-zero makes the channel 2 image.</summary>
        [FieldOffset(40)] public int Channel2On;

        /// <summary>Non-zero makes the normal image and the three channels.</summary>
        [FieldOffset(44)] public int NormalOn;

        /// <summary>Below 0.99: the tool works on images scaled by it; 1 = full.</summary>
        [FieldOffset(48)] public double Scale;

        /// <summary>1 = forward differences, anything else = central.</summary>
        [FieldOffset(56)] public int DifferenceMode;

        /// <summary>Pixels; 0 = no smoothing of the derivative images.</summary>
        [FieldOffset(60)] public int BlurRadius;

        /// <summary>Iterations of the height at most; 0 = none, negative = as many as it takes.</summary>
        [FieldOffset(64)] public int IterationCap;

        /// <summary>Read by nothing.</summary>
        [FieldOffset(68)] public int FactorOffset;

        /// <summary>Multiplies the factor image, which is normalised to 0..255.</summary>
        [FieldOffset(72)] public double FactorGain;

        /// <summary>Of the curvature image.</summary>
        [FieldOffset(80)] public OutputScaling Curvature;

        /// <summary>Of the magnitude image.</summary>
        [FieldOffset(96)] public OutputScaling Magnitude;

        /// <summary>Of the channel 0 image.</summary>
        [FieldOffset(112)] public OutputScaling Channel0;

        /// <summary>Of the channel 1 image.</summary>
        [FieldOffset(128)] public OutputScaling Channel1;

        /// <summary>Of the channel 2 image.</summary>
        [FieldOffset(144)] public OutputScaling Channel2;

        /// <summary>Read by nothing.</summary>
        [FieldOffset(160)] public OutputScaling Reserved0;

        /// <summary>Read by nothing.</summary>
        [FieldOffset(176)] public OutputScaling Reserved1;

        /// <summary>Non-zero evens out the column brightness of every image.</summary>
        [FieldOffset(192)] public int EqualiseOn;
    }

    /// <summary>One image in memory of the host, 32 bytes.</summary>
    [StructLayout(LayoutKind.Explicit, Size = 32)]
    public struct ImageRecord
    {
        /// <summary>First pixel; read during the call only.</summary>
        [FieldOffset(0)] public IntPtr Data;

        /// <summary>Columns.</summary>
        [FieldOffset(8)] public int Width;

        /// <summary>Rows.</summary>
        [FieldOffset(12)] public int Height;

        /// <summary>Bytes from one row to the next; 0 = rows without gaps.</summary>
        [FieldOffset(16)] public int RowStride;

        /// <summary>1 = 8-bit unsigned, one channel: the only type that a run can use.</summary>
        [FieldOffset(24)] public int TypeCode;
    }

    /// <summary>What an image is, 40 bytes.</summary>
    [StructLayout(LayoutKind.Explicit, Size = 40)]
    public struct MatInfo
    {
        /// <summary>First pixel; zero for an empty image.</summary>
        [FieldOffset(0)] public IntPtr Data;

        /// <summary>Bytes from one row to the next.</summary>
        [FieldOffset(8)] public long Step;

        /// <summary>Rows.</summary>
        [FieldOffset(16)] public int Rows;

        /// <summary>Columns.</summary>
        [FieldOffset(20)] public int Cols;

        /// <summary>OpenCV's number of the type: 0 = 8-bit, 2 = 16-bit, 16 = 8-bit with 3 channels.</summary>
        [FieldOffset(24)] public int Type;

        /// <summary>Bytes of one pixel, all channels.</summary>
        [FieldOffset(28)] public int PixelBytes;

        /// <summary>0: the pixels are someone else's, such as the tool's.</summary>
        [FieldOffset(32)] public int OwnsPixels;
    }

    /// <summary>
    /// Every managed entry point of the module; its header tells what they do, when they refuse and
    /// who owns what. Images are native pointers to cv::Mat objects, IntPtr.Zero where null is
    /// allowed. Most hosts use <see cref="VelostrixTool"/>.
    /// </summary>
    public static class Native
    {
        const string Module = "VelostrixUncalibration";

#pragma warning disable 1591  // told in the module's header
        [DllImport(Module)]
        public static extern IntPtr CreateVelostrixUnCalibrationToolPtr_CPU_csharp(out IntPtr tool);

        [DllImport(Module)]
        [return: MarshalAs(UnmanagedType.I1)]
        public static extern bool SetVelostrixUnCalibrationToolParam_CPU_csharp(
            IntPtr tool, ref UnCalibrationParam param);

        [DllImport(Module)]
        [return: MarshalAs(UnmanagedType.I1)]
        public static extern bool SetVelostrixUnCalibrationToolROI_CPU_csharp(
            IntPtr tool, int x1, int y1, int x2, int y2);

        [DllImport(Module)]
        public static extern long ClearVelostrixUnCalibrationToolROI_CPU_csharp(
            IntPtr tool, int rows, int cols, int rowStep);

        [DllImport(Module)]
        public static extern void InitialVelostrixUnCalibrationToolImage_CPU_csharp(IntPtr tool);

        [DllImport(Module)]
        [return: MarshalAs(UnmanagedType.I1)]
        public static extern bool SetVelostrixUnCalibrationToolImage_CPU_csharp(
            IntPtr tool, ref ImageRecord image);

        // Takes a cv::Mat; it has no managed twin.
        [DllImport(Module)]
        [return: MarshalAs(UnmanagedType.I1)]
        public static extern bool SetVelostrixUnCalibrationToolImage_CPU(IntPtr tool, IntPtr mat);

        [DllImport(Module)]
        public static extern void ClearVelostrixUnCalibrationToolImage_CPU_csharp(IntPtr tool);

        [DllImport(Module)]
        public static extern int RunVelostrixUnCalibration_CPU_csharp_uncali(
            IntPtr tool, IntPtr factor, IntPtr curvature, IntPtr magnitude, IntPtr channel0,
            IntPtr channel1, IntPtr channel2, IntPtr normal, IntPtr height);

        [DllImport(Module)]
        public static extern int RunVelostrixUnCalibration_CPU_csharp_cali(
            IntPtr tool, IntPtr factor, IntPtr curvature, IntPtr magnitude, IntPtr channel0,
            IntPtr channel1, IntPtr channel2, IntPtr normal, IntPtr height);

        [DllImport(Module)]
        public static extern int RunVelostrixUnCalibration_CPU_partcols_csharp_uncali(
            IntPtr tool, IntPtr factor, IntPtr curvature, IntPtr magnitude, IntPtr channel0,
            IntPtr channel1, IntPtr channel2, IntPtr normal, IntPtr height, int band);

        [DllImport(Module)]
        public static extern int RunVelostrixUnCalibration_CPU_partrows_csharp_uncali(
            IntPtr tool, IntPtr factor, IntPtr curvature, IntPtr magnitude, IntPtr channel0,
            IntPtr channel1, IntPtr channel2, IntPtr normal, IntPtr height, int band);

        [DllImport(Module)]
        public static extern void ReleaseVelostrixUnCalibrationToolImage_CPU_csharp(IntPtr tool);

        [DllImport(Module)]
        public static extern void DestroyImageArrayCPU_csharp(IntPtr first);

        [DllImport(Module)]
        public static extern void DestroyVelostrixUnCalibrationToolPtr_CPU_csharp(IntPtr tool);
    }

    /// <summary>cv::Mat objects for hosts without OpenCV; its header tells the rest.</summary>
    public static class NativeMat
    {
        const string Library = "velostrix_mat";

        [DllImport(Library)]
        public static extern IntPtr VelostrixMatNew();

        [DllImport(Library)]
        public static extern IntPtr VelostrixMatNewSized(int rows, int cols, int type);

        [DllImport(Library)]
        public static extern IntPtr VelostrixMatWrap(
            IntPtr data, int rows, int cols, int type, long step);

        [DllImport(Library)]
        [return: MarshalAs(UnmanagedType.I1)]
        public static extern bool VelostrixMatInspect(IntPtr mat, out MatInfo info);

        [DllImport(Library)]
        [return: MarshalAs(UnmanagedType.I1)]
        public static extern bool VelostrixMatCopyTo(IntPtr mat, IntPtr pixels, long bytes);

        [DllImport(Library)]
        public static extern void VelostrixMatDelete(IntPtr mat);

        [DllImport(Library)]
        public static extern IntPtr VelostrixMatNewArray(int count);

        [DllImport(Library)]
        public static extern IntPtr VelostrixMatAt(IntPtr first, int count, int index);

        [DllImport(Library)]
        [return: MarshalAs(UnmanagedType.I1)]
        public static extern bool VelostrixMatAssign(IntPtr to, IntPtr from);

        [DllImport(Library)]
        public static extern void VelostrixMatDeleteArray(IntPtr first);
#pragma warning restore 1591
    }
}
