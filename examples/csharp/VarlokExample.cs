// QorVarlok from C#: browse a symbol file, then read and write tags of a
// running controller through shared memory.
//
//   mcs -r:ZelVarlokCSharp.dll VarlokExample.cs
//   VARLOK_PARTITION=<partition of varlok-sim> mono VarlokExample.exe examples/demo/Demo.xml
//
// ZelVarlokCSharp.dll finds libQorVarlok.so beside itself.
using System;
using System.Text;
using ZelVarlokCSharp;

static class VarlokExample {
  static int Main(string[] args) {
    if (args.Length != 1) {
      Console.Error.WriteLine("usage: mono VarlokExample.exe SYMBOLS.xml");
      return 2;
    }
    string symbols = args[0];
    Browse(symbols);
    return Live(symbols) ? 0 : 1;
  }

  // Offline: the tags below App.GVL, from the symbol file alone.
  static void Browse(string symbols) {
    uint error;
    IntPtr config = QorVarlok.CreateSymbolConfigHandle(symbols, out error);
    if (config == IntPtr.Zero) {
      Console.WriteLine("cannot open {0}: 0x{1:X8}", symbols, error);
      return;
    }
    IntPtr records;
    uint count;
    if (QorVarlok.GetSymbolConfigParseResult(config, out records, out count) == QorVarlok.ERR_NOERROR) {
      Console.WriteLine("{0} tags in {1}; those of App.GVL:", count, symbols);
      foreach (TagDesc tag in TagDesc.FromArray(records, count)) {
        string rest = tag.FullName.StartsWith("App.GVL.") ? tag.FullName.Substring(8) : null;
        if (rest != null && rest.IndexOfAny(new[] { '.', '[' }) < 0)
          Console.WriteLine("  {0,-14} type {1,2}  {2,4} bytes  {3}", rest, tag.Type, tag.Size, tag.Comment);
      }
    }
    QorVarlok.ReleaseSymbolConfigHandle(config);
  }

  static bool Live(string symbols) {
    using (var varlok = new ZelVarlok()) {
      uint error = varlok.InitializeCom(ComType.COM_TYPE_LOCAL, symbols);
      IntPtr device = error == QorVarlok.ERR_NOERROR ? varlok.ConnectToPlcDevice("Local", out error) : IntPtr.Zero;
      if (device == IntPtr.Zero) {
        Console.WriteLine("no controller: 0x{0:X8}", error);
        return false;
      }
      Console.WriteLine("connected");
      using (var names = new StringVector(new[] { "App.GVL.counter", "App.GVL.sine", "App.GVL.message" })) {
        IntPtr list = varlok.CreateTagsHandle(names, out error);
        if (list == IntPtr.Zero) {
          Console.WriteLine("define: 0x{0:X8}", error);
          return false;
        }
        Print(varlok, list);
        IntPtr writable = varlok.CreateTagsHandle(new StringVector(new[] { "App.GVL.message", "App.GVL.counters[2]" }),
                                                  out error);
        uint code = varlok.WriteTagList(writable, new StringVector(new[] { "hello from C#", "42" }));
        Console.WriteLine("write App.GVL.message and App.GVL.counters[2]: 0x{0:X8}", code);
        Print(varlok, writable);
        varlok.DeleteTagsHandle(writable);
        varlok.DeleteTagsHandle(list);
      }
      varlok.DisconnectFromDevice(device);
      varlok.ExitVarlokCommunication();
      Console.WriteLine("disconnected");
      return true;
    }
  }

  // One line per tag, the value decoded by its type code.
  static void Print(ZelVarlok varlok, IntPtr list) {
    using (var values = new VectorTagVarValue()) {
      uint count;
      uint code = varlok.ReadTagList(list, values, out count);
      if (code != QorVarlok.ERR_NOERROR) {
        Console.WriteLine("read: 0x{0:X8}", code);
        return;
      }
      foreach (TagVarValue value in values) Console.WriteLine("{0} = {1}", value.FullName, Decode(value));
    }
  }

  static string Decode(TagVarValue value) {
    byte[] bytes = value.GetValueBytes();
    switch (value.Type) {
      case 0: return (bytes[0] != 0).ToString();
      case 7: return BitConverter.ToInt32(bytes, 0).ToString();
      case 10: return BitConverter.ToSingle(bytes, 0).ToString("R");
      case 11: return BitConverter.ToDouble(bytes, 0).ToString("F3");
      case 17: {
        int end = Array.IndexOf(bytes, (byte)0);
        return "\"" + Encoding.UTF8.GetString(bytes, 0, end < 0 ? bytes.Length : end) + "\"";
      }
      default: return BitConverter.ToString(bytes);
    }
  }
}
