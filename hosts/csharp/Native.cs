// The flat interface of velostrix_host for C#: records, entry points, exceptions.
using System;
using System.Collections.Generic;
using System.Runtime.InteropServices;
using System.Text;
using Microsoft.Win32.SafeHandles;

namespace Velostrix
{
    sealed class ReconstructorHandle : SafeHandleZeroOrMinusOneIsInvalid
    {
        ReconstructorHandle() : base(ownsHandle: true) { }

        protected override bool ReleaseHandle() =>
            Native.VelostrixReconstructorDestroy(handle) == VelostrixStatus.Ok;
    }

    // Managed memory, pinned until disposed.
    sealed class Pins : IDisposable
    {
        readonly List<GCHandle> handles = new List<GCHandle>();

        public IntPtr Pin(object memory)
        {
            handles.Add(GCHandle.Alloc(memory, GCHandleType.Pinned));
            return handles[handles.Count - 1].AddrOfPinnedObject();
        }

        public void Dispose()
        {
            foreach (GCHandle handle in handles) handle.Free();
        }
    }

    static class Native
    {
        // The version of the headers that these declarations follow.
        public const int Major = 0, Minor = 1;
        public const int OutputCount = 8, MostImages = 8, LongestMessage = 1024, LongestRecipe = 16384;
        public const int FlatTerms = 15;

        [StructLayout(LayoutKind.Sequential)]
        public struct Settings
        {
            public int StructSize, Run, Band;
            public uint Outputs;
            public int HasRegion;
            public VelostrixRegion Region;
            public int Equalise;
            public double Scale;
            public int Difference, BlurRadius, IterationCap, Bits;
            [MarshalAs(UnmanagedType.ByValArray, SizeConst = OutputCount)] public double[] Gain;
            [MarshalAs(UnmanagedType.ByValArray, SizeConst = OutputCount)] public int[] Offset;
            public uint KeptGains, KeptOffsets;
            public int Orientation, Lamp;
            public double LampDegrees;
            public int White, FlatCount;
            [MarshalAs(UnmanagedType.ByValArray, SizeConst = MostImages * FlatTerms)]
            public double[] Flat;

            // All memory that marshalling needs.
            public static Settings Empty()
            {
                return new Settings
                {
                    StructSize = Marshal.SizeOf(typeof(Settings)),
                    Gain = new double[OutputCount],
                    Offset = new int[OutputCount],
                    Flat = new double[MostImages * FlatTerms]
                };
            }
        }

        [StructLayout(LayoutKind.Sequential)]
        public struct Image
        {
            public IntPtr Data;
            public long RowStride;
            public int Width, Height, SampleBytes, Reserved;
        }

        [StructLayout(LayoutKind.Sequential)]
        public struct Plane
        {
            public IntPtr Data;
            public long RowStride;
            public int Width, Height, Channels, SampleBytes;
        }

        [StructLayout(LayoutKind.Sequential)]
        public struct OrientationFound
        {
            public int StructSize, IsClear, IsMirrored, IsTurned, IsInverted, IsSignOpen;
            public int HasMirroredCurvature, Reserved;
            public double CurlAsIs, CurlMirrored, Turn;
        }

        [StructLayout(LayoutKind.Sequential)]
        public struct Exposure
        {
            public double SaturatedShare, BlackShare, MeanLevel;
            public int IsDead, EqualTo;
        }

        [StructLayout(LayoutKind.Sequential)]
        public struct Diagnostics
        {
            public int StructSize, ImageCount;
            [MarshalAs(UnmanagedType.ByValArray, SizeConst = MostImages)] public Exposure[] Exposures;
            [MarshalAs(UnmanagedType.ByValArray, SizeConst = MostImages)]
            public double[] SingularValues;
            public double UnexplainedByRing, UnexplainedByAny;
            public int WarningCount, LastPiece;
            [MarshalAs(UnmanagedType.ByValArray, SizeConst = MostImages)] public double[] Shifts;
            public double NoiseShare;
        }

        const string Library = "velostrix_host";

        [DllImport(Library)] public static extern IntPtr VelostrixStatusText(VelostrixStatus status);
        [DllImport(Library)] public static extern IntPtr VelostrixLibraryVersion();
        // Names in the encoding of the file system.
        [DllImport(Library)] public static extern int VelostrixCompareNames(string a, string b);
        [DllImport(Library)] public static extern VelostrixStatus VelostrixViewHeight(
            ref Image height, VelostrixSurface removed, int border, [In] Image[] mask, IntPtr data,
            long rowStride, long capacity, IntPtr view, [Out] byte[] message);
        [DllImport(Library)] public static extern VelostrixStatus VelostrixCheckVersion(
            int major, int minor, [Out] byte[] message);
        [DllImport(Library)] public static extern VelostrixStatus VelostrixSetThreads(int count);
        [DllImport(Library)] public static extern int VelostrixThreads();

        [DllImport(Library)] public static extern VelostrixStatus VelostrixSettingsDefaults(
            ref Settings settings);
        [DllImport(Library)] public static extern VelostrixStatus VelostrixSettingsCheck(
            ref Settings settings, int count, int width, int height, [Out] byte[] message);
        [DllImport(Library)] public static extern VelostrixStatus VelostrixSettingsToJson(
            ref Settings settings, [Out] byte[] text, long capacity, out long length,
            [Out] byte[] message);
        [DllImport(Library)] public static extern VelostrixStatus VelostrixSettingsFromJson(
            byte[] text, long length, ref Settings settings, [Out] byte[] message);

        [DllImport(Library)] public static extern VelostrixStatus VelostrixFitFlat(
            Image[] references, int count, ref Settings settings, [Out] byte[] message);

        [DllImport(Library)] public static extern VelostrixStatus VelostrixReconstructorCreate(
            out ReconstructorHandle handle);
        [DllImport(Library)] public static extern VelostrixStatus VelostrixReconstructorDestroy(
            IntPtr reconstructor);
        [DllImport(Library)] public static extern VelostrixStatus VelostrixReconstructorMessage(
            ReconstructorHandle handle, [Out] byte[] message);
        [DllImport(Library)] public static extern VelostrixStatus VelostrixReconstructorSetMask(
            ReconstructorHandle handle, [In] Image[] mask);
        [DllImport(Library)] public static extern VelostrixStatus VelostrixReconstructorMaskUnlit(
            ReconstructorHandle handle, Image[] images, int count, ref Settings settings,
            out double kept);
        [DllImport(Library)] public static extern VelostrixStatus VelostrixReconstructorPrepare(
            ReconstructorHandle handle, int count, int width, int height, ref Settings settings);
        [DllImport(Library)] public static extern VelostrixStatus VelostrixReconstructorSetImage(
            ReconstructorHandle handle, ref Image image);
        [DllImport(Library)] public static extern VelostrixStatus VelostrixReconstructorClearImages(
            ReconstructorHandle handle);
        [DllImport(Library)] public static extern VelostrixStatus VelostrixReconstructorRun(
            ReconstructorHandle handle);
        [DllImport(Library)] public static extern VelostrixStatus VelostrixReconstructorReconstruct(
            ReconstructorHandle handle, Image[] images, int count, ref Settings settings);
        [DllImport(Library)] public static extern VelostrixStatus VelostrixReconstructorResult(
            ReconstructorHandle handle, VelostrixOutput output, out Plane plane);
        [DllImport(Library)] public static extern VelostrixStatus VelostrixReconstructorCopyResult(
            ReconstructorHandle handle, VelostrixOutput output, IntPtr data, long rowStride,
            long capacity);
        [DllImport(Library)] public static extern VelostrixStatus VelostrixReconstructorOrientation(
            ReconstructorHandle handle, ref OrientationFound found);
        [DllImport(Library)] public static extern VelostrixStatus VelostrixReconstructorTimes(
            ReconstructorHandle handle, [Out] double[] times);
        [DllImport(Library)] public static extern VelostrixStatus VelostrixReconstructorChooseGains(
            ReconstructorHandle handle, Image[] images, int count, ref Settings settings);
        [DllImport(Library)] public static extern VelostrixStatus VelostrixReconstructorDiagnose(
            ReconstructorHandle handle, Image[] images, int count, ref Settings settings,
            IntPtr[] names, ref Diagnostics diagnostics);
        [DllImport(Library)] public static extern VelostrixStatus VelostrixReconstructorWarning(
            ReconstructorHandle handle, int index, [Out] byte[] warning);

        public static string Text(byte[] message)
        {
            int length = Array.IndexOf(message, (byte)0);
            return Encoding.UTF8.GetString(message, 0, length < 0 ? message.Length : length);
        }

        // Throws unless the status is Ok; without a message, the text of the status is the reason.
        public static void Check(VelostrixStatus status, byte[] message = null)
        {
            if (status == VelostrixStatus.Ok) return;
            string text = message == null ? "" : Text(message);
            if (text == "") text = Marshal.PtrToStringAnsi(VelostrixStatusText(status));
            if (status == VelostrixStatus.OutOfMemory) throw new OutOfMemoryException(text);
            throw new VelostrixException(status, text);
        }
    }
}
