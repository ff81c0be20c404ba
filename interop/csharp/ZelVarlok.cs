// What the C# binding adds by hand to the generated proxies: the exports that
// SWIG does not generate (error texts, the children of a tag, the
// descriptions of a defined list, a tag's description by name), and the size
// checks of byte buffers.
//
// The library copies as many bytes as a list's values take, whatever the size
// of the caller's buffer; a managed array that is too short would let it write
// past the array. So every call that moves raw bytes first checks the array
// against what the call moves and throws ArgumentException ("data") when it
// is shorter. A null array goes through: the library answers for it.
using System;
using System.Runtime.InteropServices;

namespace ZelVarlokCSharp {

public partial class QorVarlok {
  [DllImport("QorVarlok", EntryPoint = "CSharp_ReadErrorDescription")]
  static extern IntPtr CSharp_ReadErrorDescription(uint code);

  // The children of a tag, by the TagsHandle of its record (the plain export;
  // it has no generated wrapper). Read them with TagDesc.FromArray.
  [DllImport("QorVarlok", EntryPoint = "GetSymbolConfigSubTagsDesc")]
  public static extern uint GetSymbolConfigSubTagsDesc(IntPtr tagsHandle, out IntPtr descs, out uint count);

  // The text of an error code as the library holds it: GBK (code page 936)
  // Chinese bytes, without the terminator. Formatted texts live in one buffer
  // of the process, which is why they are copied at once.
  public static byte[] ReadErrorDescription(uint code) {
    IntPtr text = CSharp_ReadErrorDescription(code);
    if (text == IntPtr.Zero) return null;
    int length = 0;
    while (Marshal.ReadByte(text, length) != 0) ++length;
    byte[] bytes = new byte[length];
    Marshal.Copy(text, bytes, 0, length);
    return bytes;
  }
}

public partial class ZelVarlok {
  [DllImport("QorVarlok", EntryPoint = "CSharp_GetTagsListLength")]
  static extern int CSharp_GetTagsListLength(HandleRef varlok, IntPtr handle);

  [DllImport("QorVarlok", EntryPoint = "CSharp_ReadTagsListDesc")]
  static extern int CSharp_ReadTagsListDesc(HandleRef varlok, IntPtr handle, [Out] IntPtr[] descs);

  [DllImport("QorVarlok", EntryPoint = "CSharp_ReadTagsDescByTagName")]
  static extern int CSharp_ReadTagsDescByTagName(HandleRef varlok, [MarshalAs(UnmanagedType.LPStr)] string name,
                                                 out IntPtr desc);

  // Number of tags of a defined list; 0 for a handle this object does not know.
  public int GetTagsListLength(IntPtr handle) {
    return CSharp_GetTagsListLength(swigCPtr, handle);
  }

  // The descriptions of a defined list's tags, in list order: views of records
  // that the library keeps while this object is initialised.
  public TagDesc[] ReadTagsListDesc(IntPtr handle) {
    IntPtr[] records = ListRecords(handle);
    TagDesc[] descs = new TagDesc[records.Length];
    for (int i = 0; i < records.Length; ++i) descs[i] = new TagDesc(records[i], false);
    return descs;
  }

  // A tag's description by its full name, or null when the table has no such
  // tag; needs InitializeCom. The record stays the library's.
  public TagDesc ReadTagsDescByTagName(string name) {
    if (name == null) throw new ArgumentNullException("name");
    IntPtr desc;
    return CSharp_ReadTagsDescByTagName(swigCPtr, name, out desc) != 0 && desc != IntPtr.Zero
               ? new TagDesc(desc, false)
               : null;
  }

  IntPtr[] ListRecords(IntPtr handle) {
    int count = CSharp_GetTagsListLength(swigCPtr, handle);
    if (count <= 0) return new IntPtr[0];
    IntPtr[] records = new IntPtr[count];
    int got = CSharp_ReadTagsListDesc(swigCPtr, handle, records);
    if (got < count) Array.Resize(ref records, Math.Max(got, 0));
    return records;
  }

  // Bytes that the values of a list take; 0 for a handle the library will refuse.
  long ListBytes(IntPtr handle) {
    long bytes = 0;
    foreach (IntPtr record in ListRecords(handle)) bytes += new TagDesc(record, false).Size;
    return bytes;
  }

  static void RequireBytes(byte[] data, long needed) {
    if (data != null && data.LongLength < needed)
      throw new ArgumentException("the buffer holds " + data.LongLength + " bytes, the call moves " + needed, "data");
  }

  // The raw WriteTagList copies the whole list's bytes.
  void CheckListBuffer(IntPtr handle, byte[] data) {
    if (data != null) RequireBytes(data, ListBytes(handle));
  }

  // A whole array (start and count 0) moves the list's bytes, a range count
  // elements of length bytes.
  void CheckArrayBuffer(IntPtr handle, int length, byte[] data, uint start, uint count) {
    if (data == null) return;
    if (start == 0 && count == 0)
      RequireBytes(data, ListBytes(handle));
    else if (length > 0)
      RequireBytes(data, (long)count * length);
  }

  // A structure moves its length, which the library compares with the tag's
  // size, and the list's bytes.
  void CheckStructBuffer(IntPtr handle, byte[] data, int length) {
    if (data != null) RequireBytes(data, Math.Max(length, ListBytes(handle)));
  }
}

}
