// The C# binding on Mono against a real varlok-sim, which the test's driver
// started on the partition named by VARLOK_PARTITION: browse, connect,
// define, read in both forms, write text and raw, arrays and structures,
// delete, disconnect; every argument mistake as the exception the managed
// surface gives; codes compared with the constants' getters.
// Usage: mono CSharpTest.exe SYMBOLS.xml
using System;
using System.Collections.Generic;
using System.IO;
using System.Text;
using ZelVarlokCSharp;

static class CSharpTest {
  static int s_passed, s_failed;

  static void Check(bool ok, string what) {
    if (ok) {
      ++s_passed;
    } else {
      ++s_failed;
      Console.WriteLine("FAILED: " + what);
    }
  }

  static void Code(uint actual, uint expected, string what) {
    Check(actual == expected, string.Format("{0}: 0x{1:X8}, expected 0x{2:X8}", what, actual, expected));
  }

  // The exception that the action throws: its type, message and parameter name.
  static void Throws<T>(Action action, string message, string param, string what) where T : Exception {
    try {
      action();
      Check(false, what + ": no exception");
    } catch (T e) {
      var argument = e as ArgumentException;  // parameter names belong to argument exceptions
      Check(message == null || e.Message.StartsWith(message), what + ": message '" + e.Message + "'");
      Check(argument == null || argument.ParamName == param,
            what + ": parameter '" + (argument == null ? "" : argument.ParamName) + "'");
    } catch (Exception e) {
      Check(false, what + ": " + e.GetType().Name + " " + e.Message);
    }
  }

  static int Main(string[] args) {
    string dir = Path.Combine(Path.GetTempPath(), "qv-cs-" + System.Diagnostics.Process.GetCurrentProcess().Id);
    Directory.CreateDirectory(dir);
    // A path beyond ASCII and beyond the basic plane, as .NET hands it over in UTF-16.
    string symbols = Path.Combine(dir, "D\u00e9mo-\u7b26\u53f7-\U0001F600.xml");
    File.Copy(args[0], symbols, true);
    try {
      Browse(symbols);
      Live(symbols);
      Vectors();
      Describe();
    } catch (Exception e) {
      Check(false, "unexpected " + e);
    } finally {
      Directory.Delete(dir, true);
    }
    Console.WriteLine("{0} passed, {1} failed", s_passed, s_failed);
    return s_failed == 0 ? 0 : 1;
  }

  static void Browse(string symbols) {
    uint error;
    IntPtr config = QorVarlok.CreateSymbolConfigHandle(symbols, out error);
    Check(config != IntPtr.Zero, "open the symbol file by a non-ASCII path");
    Code(error, QorVarlok.ERR_NOERROR, "its code");
    IntPtr records;
    uint count;
    Code(QorVarlok.GetSymbolConfigToppestTagsDesc(config, out records, out count), QorVarlok.ERR_NOERROR, "top level");
    TagDesc[] top = TagDesc.FromArray(records, count);
    Check(top.Length == 1 && top[0].FullName == "App" && top[0].TagsHandle != IntPtr.Zero, "the top level is App");
    Code(QorVarlok.GetSymbolConfigSubTagsDesc(top[0].TagsHandle, out records, out count), QorVarlok.ERR_NOERROR,
         "below App");
    Check(Array.Exists(TagDesc.FromArray(records, count), d => d.FullName == "App.GVL"), "App.GVL below App");
    Code(QorVarlok.GetSymbolConfigParseResult(config, out records, out count), QorVarlok.ERR_NOERROR, "all tags");
    var byName = new Dictionary<string, TagDesc>();
    foreach (TagDesc d in TagDesc.FromArray(records, count)) byName[d.FullName] = d;
    Check(byName.ContainsKey("App.GVL.counter") && byName["App.GVL.counter"].Size == 4 &&
              byName["App.GVL.counter"].Comment == "incremented by the demo task every cycle",
          "App.GVL.counter, its size and comment");
    Check(byName.ContainsKey("App.GVL.temp\u00e9rature"), "a UTF-8 tag name arrives as the managed string");
    Check(byName.ContainsKey("App.GVL.motor.speed") && byName["App.GVL.motor.speed"].Type == 10, "a member's type");
    QorVarlok.ReleaseSymbolConfigHandle(config);

    Check(QorVarlok.CreateSymbolConfigHandle(Path.Combine(Path.GetDirectoryName(symbols), "none.xml"), out error) ==
              IntPtr.Zero, "a missing file gives no handle");
    Code(error, QorVarlok.ERR_XML_ILLEGL_XML_FORMAT, "and its code");
    Throws<ArgumentNullException>(() => QorVarlok.CreateSymbolConfigHandle(null, out error), "null wstring", null,
                                  "CreateSymbolConfigHandle(null)");
  }

  static StringVector Names(params string[] names) { return new StringVector(names); }

  static void Live(string symbols) {
    using (var varlok = new ZelVarlok()) {
      uint error;
      Throws<ArgumentNullException>(() => varlok.InitializeCom(ComType.COM_TYPE_LOCAL, null), "null wstring", null,
                                    "InitializeCom(null)");
      Check(varlok.CreateTagsHandle("App.GVL.counter", out error) == IntPtr.Zero, "define before InitializeCom");
      Code(error, QorVarlok.ERR_COMMUNICATION_NOT_INITIALIZED, "define before InitializeCom");
      Code(varlok.InitializeCom(ComType.COM_TYPE_LOCAL, symbols), QorVarlok.ERR_NOERROR, "InitializeCom");
      Throws<ArgumentNullException>(() => varlok.ConnectToPlcDevice(null, out error), "null string", null,
                                    "ConnectToPlcDevice(null)");
      IntPtr device = varlok.ConnectToPlcDevice("Local", out error);
      Check(device != IntPtr.Zero, "connect \"Local\"");
      Code(error, QorVarlok.ERR_NOERROR, "connect");

      IntPtr values = varlok.CreateTagsHandle(Names("App.GVL.counter", "App.GVL.message", "App.GVL.temp\u00e9rature"),
                                              out error);
      Check(values != IntPtr.Zero, "define three tags");
      Code(error, QorVarlok.ERR_NOERROR, "define three tags");
      Check(varlok.GetTagsListLength(values) == 3, "the list's length");
      TagDesc[] descs = varlok.ReadTagsListDesc(values);
      Check(descs.Length == 3 && descs[1].FullName == "App.GVL.message" && descs[1].Size == 81, "the list's records");
      IntPtr nothing = varlok.CreateTagsHandle("App.GVL.nothing", out error);
      Check(nothing == IntPtr.Zero && error == QorVarlok.ERR_EXIST_INVAILD_VAR,
            string.Format("an unknown tag: 0x{0:X8}", error));

      // Writes as text, then both forms of the read.
      Code(varlok.WriteTagList(values, Names("1234", "hello from C#", "1")), QorVarlok.ERR_READ_WRITE_DENIED,
           "a read-only tag refuses the write");
      IntPtr writable = varlok.CreateTagsHandle(Names("App.GVL.counter", "App.GVL.message"), out error);
      Code(varlok.WriteTagList(writable, Names("1234", "hello from C#")), QorVarlok.ERR_NOERROR, "write as text");
      using (var read = new VectorTagVarValue()) {
        uint count;
        Code(varlok.ReadTagList(values, read, out count), QorVarlok.ERR_NOERROR, "read into a vector");
        Check(count == 3 && read.Count == 3, "three values");
        Check(read[0].FullName == "App.GVL.counter" && read[0].Type == 7 && read[0].ValueLength == 4, "counter record");
        Check(BitConverter.ToInt32(read[0].GetValueBytes(), 0) == 1234, "counter value");
        Check(Encoding.ASCII.GetString(read[1].GetValueBytes(), 0, 13) == "hello from C#" &&
                  read[1].GetValueBytes()[13] == 0, "message value");
        Check(read[2].Type == 10 && read[2].ValueLength == 4, "temperature record");
      }
      IntPtr array;
      uint arrayCount;
      Code(varlok.ReadTagList_INTERFACE_1(values, out array, out arrayCount), QorVarlok.ERR_NOERROR, "read, array form");
      TagVarValue[] viewed = TagVarValue.FromArray(array, arrayCount);
      Check(viewed.Length == 3 && viewed[1].FullName == "App.GVL.message" &&
                BitConverter.ToInt32(viewed[0].GetValueBytes(), 0) == 1234, "array form values");

      // Raw bytes of a whole list.
      IntPtr counter = varlok.CreateTagsHandle("App.GVL.counter", out error);
      Code(varlok.WriteTagList2(counter, BitConverter.GetBytes(-5678), 1), QorVarlok.ERR_NOERROR, "raw write");
      uint n;
      Code(varlok.ReadTagList_INTERFACE_1(counter, out array, out n), QorVarlok.ERR_NOERROR, "read back");
      Check(BitConverter.ToInt32(TagVarValue.FromArray(array, n)[0].GetValueBytes(), 0) == -5678, "raw value");
      Throws<ArgumentNullException>(() => varlok.WriteTagList2(counter, null, 1),
                                    "std::vector< std::string > & type is null", null, "WriteTagList2(null)");
      Throws<ArgumentException>(() => varlok.WriteTagList2(counter, new byte[3], 1), null, "data",
                                "WriteTagList2 with a short buffer");

      // An array range and the whole array; a structure.
      IntPtr counters = varlok.CreateTagsHandle("App.GVL.counters", out error);
      var pair = new byte[8];
      BitConverter.GetBytes(42).CopyTo(pair, 0);
      BitConverter.GetBytes(43).CopyTo(pair, 4);
      Code(varlok.WriteArray(counters, 4, pair, 2, 2), QorVarlok.ERR_NOERROR, "write elements 2 and 3");
      var all = new byte[40];
      Code(varlok.ReadArray(counters, 4, all, 0, 0), QorVarlok.ERR_NOERROR, "read the whole array");
      Check(BitConverter.ToInt32(all, 8) == 42 && BitConverter.ToInt32(all, 12) == 43, "elements 2 and 3");
      Code(varlok.ReadArray(counters, 2, all, 0, 0), QorVarlok.ERR_UNMATCH_TYPE_PARA, "a wrong element size");
      Code(varlok.ReadArray(counters, 4, all, 9, 2), QorVarlok.ERR_OVERSTEP_ACCESS, "a range beyond the array");
      Throws<ArgumentException>(() => varlok.ReadArray(counters, 4, new byte[39], 0, 0), null, "data",
                                "ReadArray into a short buffer");
      Throws<ArgumentException>(() => varlok.ReadArray(counters, 4, new byte[4], 1, 2), null, "data",
                                "a range into a short buffer");
      IntPtr motor = varlok.CreateTagsHandle("App.GVL.motor", out error);
      var image = new byte[48];
      for (int i = 0; i < image.Length; ++i) image[i] = (byte)(i + 1);
      Code(varlok.WriteStructField(motor, image, 48), QorVarlok.ERR_NOERROR, "write a structure");
      var back = new byte[48];
      Code(varlok.ReadStructField(motor, back, 48), QorVarlok.ERR_NOERROR, "read it back");
      Check(Convert.ToBase64String(back) == Convert.ToBase64String(image), "the structure's bytes");
      Code(varlok.ReadStructField(motor, back, 40), QorVarlok.ERR_UNALIGNED_STRUCT, "a wrong structure size");
      Throws<ArgumentException>(() => varlok.ReadStructField(motor, new byte[40], 48), null, "data",
                                "ReadStructField into a short buffer");

      // Argument mistakes of the class.
      Throws<ArgumentNullException>(() => varlok.CreateTagsHandle((string)null, out error), "null string", null,
                                    "CreateTagsHandle(string null)");
      Throws<ArgumentNullException>(() => varlok.CreateTagsHandle((StringVector)null, out error),
                                    "Attempt to dereference null std::vector< std::string >", null,
                                    "CreateTagsHandle(vector null)");
      Throws<ArgumentNullException>(() => varlok.DeleteTagsHandle(IntPtr.Zero), "HTAGLIST & type is null", null,
                                    "DeleteTagsHandle(null)");
      uint c;
      Throws<ArgumentNullException>(() => varlok.ReadTagList(values, null, out c),
                                    "std::vector< TagVarValue > & type is null", null, "ReadTagList(null)");
      Throws<ArgumentNullException>(() => varlok.WriteTagList(values, null),
                                    "std::vector< std::string > & type is null", null, "WriteTagList(null)");
      using (var read = new VectorTagVarValue()) {
        Code(varlok.ReadTagList(new IntPtr(8), read, out c), QorVarlok.ERR_INVALID_TAG_HANDLE, "an unknown handle");
      }

      // Deletion, then the end of the connection.
      foreach (IntPtr handle in new[] { values, writable, counter, counters, motor })
        Code(varlok.DeleteTagsHandle(handle), QorVarlok.ERR_NOERROR, "delete");
      Code(varlok.DeleteTagsHandle(values), QorVarlok.ERR_INVALID_TAG_HANDLE, "delete twice");
      Code(varlok.DisconnectFromDevice(device), QorVarlok.ERR_NOERROR, "disconnect");
      using (var read = new VectorTagVarValue()) {
        Code(varlok.ReadTagList(values, read, out c), QorVarlok.ERR_COMMUNICATION_NOT_INITIALIZED,
             "read after disconnect: no connection stands");
      }
      Code(varlok.ExitVarlokCommunication(), QorVarlok.ERR_NOERROR, "exit");
    }
    // Objects used after Dispose.
    var gone = new ZelVarlok();
    gone.Dispose();
    gone.Dispose();
    Throws<ObjectDisposedException>(() => gone.ExitVarlokCommunication(), null, null, "ZelVarlok after Dispose");
    var names = Names("App.GVL.counter");
    names.Dispose();
    using (var varlok = new ZelVarlok()) {
      uint error;
      Throws<ObjectDisposedException>(() => varlok.CreateTagsHandle(names, out error), null, null,
                                      "a disposed StringVector as an argument");
    }
  }

  // One mistake of each kind on the vectors (the C++ test has the whole table).
  static void Vectors() {
    using (var v = new StringVector()) {
      Check(v.GetRange(0, 0).Count == 0, "an empty range of an empty vector");
      Throws<ArgumentException>(() => v.GetRange(1, 0), "invalid range", "", "GetRange(1, 0)");
      Throws<ArgumentOutOfRangeException>(() => v.GetRange(-1, 0), null, "index", "GetRange(-1, 0)");
      v.Add("a");
      v.Insert(1, "b");  // at the size: an append
      Check(v.Count == 2 && v[1] == "b", "Insert at the size appends");
      Throws<ArgumentOutOfRangeException>(() => v.Insert(3, "c"), null, "index", "Insert beyond the size");
      Throws<ArgumentNullException>(() => v.Contains(null), "null string", null, "Contains(null)");
      Throws<ArgumentOutOfRangeException>(() => new StringVector(-1), null, "capacity", "new StringVector(-1)");
    }
    using (var records = new VectorTagVarValue()) {
      Throws<ArgumentNullException>(() => records.Add(null), "TagVarValue const & type is null", null,
                                    "VectorTagVarValue.Add(null)");
      records.Capacity = 30;  // the size goes through a pointer
      Check(records.Capacity >= 30, "VectorTagVarValue capacity");
    }
  }

  static void Describe() {
    byte[] text = QorVarlok.ReadErrorDescription(QorVarlok.ERR_NOERROR);
    Check(text != null && BitConverter.ToString(text) == "CE-DE-B4-ED-CE-F3", "the GBK text of success");
    Check(Encoding.ASCII.GetString(QorVarlok.ReadErrorDescription(QorVarlok.ERR_UNDEFINED)).EndsWith("(ID:1)"),
          "an unknown code's text");
    Check(QorVarlok.MAX_NAME_LEN == 255 && QorVarlok.MAX_VALUE_LEN == 1024, "the two sizes");
    using (var desc = new TagDesc()) {
      Check(desc.Type == 32767 && desc.Name == null, "a new TagDesc");
      desc.Name = "speed";
      desc.Name = null;
      Check(desc.Name == null, "a string field set to null");
    }
  }
}
