// Arrays of records that the library hands out by address (the symbol
// configuration's descriptions, the array form of ReadTagList) read as proxy
// views, and the value bytes of a read. A view does not own its record: it is
// valid as long as the library keeps the array, and disposing it frees nothing.
using System;
using System.Runtime.InteropServices;

namespace ZelVarlokCSharp {

public partial class TagDesc {
  // The C layout of the record, for its size only.
  [StructLayout(LayoutKind.Sequential)]
  struct Layout {
    public IntPtr Name, FullName;
    public int Type, Size, AccessType;
    public IntPtr Comment;
    public int VarType, BaseType, MinValue, MaxValue, EnumValue;
    public IntPtr TagsHandle;
  }
  static readonly int RecordSize = Marshal.SizeOf(typeof(Layout));

  // Views of count records that start at the given address.
  public static TagDesc[] FromArray(IntPtr records, uint count) {
    if (records == IntPtr.Zero && count > 0) throw new ArgumentNullException("records");
    TagDesc[] views = new TagDesc[count];
    for (int i = 0; i < views.Length; ++i) views[i] = new TagDesc(IntPtr.Add(records, i * RecordSize), false);
    return views;
  }
}

public partial class TagVarValue {
  [StructLayout(LayoutKind.Sequential)]
  struct Layout {
    public IntPtr FullName;
    public int Type, ValueLength;
    public IntPtr Value;
  }
  static readonly int RecordSize = Marshal.SizeOf(typeof(Layout));

  public static TagVarValue[] FromArray(IntPtr records, uint count) {
    if (records == IntPtr.Zero && count > 0) throw new ArgumentNullException("records");
    TagVarValue[] views = new TagVarValue[count];
    for (int i = 0; i < views.Length; ++i) views[i] = new TagVarValue(IntPtr.Add(records, i * RecordSize), false);
    return views;
  }

  // A copy of the ValueLength bytes at Value: the value in the controller's
  // binary form, little-endian. Empty where there is none.
  public byte[] GetValueBytes() {
    IntPtr value = Value;
    int length = ValueLength;
    if (value == IntPtr.Zero || length <= 0) return new byte[0];
    byte[] bytes = new byte[length];
    Marshal.Copy(value, bytes, 0, length);
    return bytes;
  }
}

}
