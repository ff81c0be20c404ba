// What only the C# binding needs: how arguments cross the boundary, the texts
// of the argument checks that managed callers see (older generators' wording,
// which our callers compare), the wide-string callback, and the hooks of the
// module's declarations. Included by QorVarlok.i when generating C#.

// The proxies are partial: csharp/*.cs adds the helpers written by hand.
%typemap(csclassmodifiers) ZelVarlok, tagTagDesc, tagTagVarValue "public partial class"
%pragma(csharp) moduleclassmodifiers="public partial class"

// A C++ exception must not cross into the managed runtime, which it would
// end. The vectors can run out of memory (a huge capacity, Repeat); that
// reaches the managed side as OutOfMemoryException, anything else as
// ApplicationException. The class catches its own.
%feature("except", canthrow=1) %{
  try {
    $action
  } catch (const std::bad_alloc& e) {
    SWIG_CSharpSetPendingException(SWIG_CSharpOutOfMemoryException, e.what());
    return $null;
  } catch (const std::length_error& e) {
    SWIG_CSharpSetPendingException(SWIG_CSharpOutOfMemoryException, e.what());
    return $null;
  } catch (const std::exception& e) {
    SWIG_CSharpSetPendingException(SWIG_CSharpApplicationException, e.what());
    return $null;
  } catch (...) {
    SWIG_CSharpSetPendingException(SWIG_CSharpApplicationException, "unknown exception");
    return $null;
  }
%}

// size_t crosses as the 32 bits that the managed side declares (uint): sizes
// come back cut to 32 bits, and StringVector.reserve takes 32 bits by value.
// A 64-bit C type here would read bits of a register that the caller never set.
%typemap(ctype) size_t "unsigned int"
%typemap(out) size_t %{ $result = (unsigned int)$1; %}

// A proxy used after Dispose throws ObjectDisposedException, in place of
// handing the library a null object that it would dereference.
%typemap(csbody) SWIGTYPE %{
  private global::System.Runtime.InteropServices.HandleRef swigCPtrHeld;
  protected bool swigCMemOwn;

  private global::System.Runtime.InteropServices.HandleRef swigCPtr {
    get {
      if (swigCPtrHeld.Handle == global::System.IntPtr.Zero)
        throw new global::System.ObjectDisposedException(GetType().Name);
      return swigCPtrHeld;
    }
  }

  internal $csclassname(global::System.IntPtr cPtr, bool cMemoryOwn) {
    swigCMemOwn = cMemoryOwn;
    swigCPtrHeld = new global::System.Runtime.InteropServices.HandleRef(this, cPtr);
  }

  internal static global::System.Runtime.InteropServices.HandleRef getCPtr($csclassname obj) {
    return (obj == null) ? new global::System.Runtime.InteropServices.HandleRef(null, global::System.IntPtr.Zero) : obj.swigCPtr;
  }
%}
%typemap(csdisposing, methodname="Dispose", methodmodifiers="protected", parameters="bool disposing") SWIGTYPE {
    lock(this) {
      if (swigCPtrHeld.Handle != global::System.IntPtr.Zero) {
        if (swigCMemOwn) {
          swigCMemOwn = false;
          $imcall;
        }
        swigCPtrHeld = new global::System.Runtime.InteropServices.HandleRef(null, global::System.IntPtr.Zero);
      }
    }
  }

// ------------------------------------------------------ reference null checks
// "<type> type is null" for every reference argument.
%typemap(in, canthrow=1) SWIGTYPE & %{ $1 = ($1_ltype)$input;
  if (!$1) {
    SWIG_CSharpSetPendingExceptionArgument(SWIG_CSharpArgumentNullException, "$1_type type is null", 0);
    return $null;
  } %}
// The record's vector and the record itself are named by their managed names.
%typemap(in, canthrow=1) std::vector<tagTagVarValue>& %{ $1 = ($1_ltype)$input;
  if (!$1) {
    SWIG_CSharpSetPendingExceptionArgument(SWIG_CSharpArgumentNullException, "std::vector< TagVarValue > & type is null", 0);
    return $null;
  } %}
%typemap(in, canthrow=1) const std::vector<tagTagVarValue>& %{ $1 = ($1_ltype)$input;
  if (!$1) {
    SWIG_CSharpSetPendingExceptionArgument(SWIG_CSharpArgumentNullException, "std::vector< TagVarValue > const & type is null", 0);
    return $null;
  } %}
%typemap(in, canthrow=1) const tagTagVarValue& %{ $1 = ($1_ltype)$input;
  if (!$1) {
    SWIG_CSharpSetPendingExceptionArgument(SWIG_CSharpArgumentNullException, "TagVarValue const & type is null", 0);
    return $null;
  } %}

// VectorTagVarValue.reserve takes its size through a pointer to a 64-bit
// size_type, checked for null; StringVector.reserve takes it by value. The
// managed method is the same for both.
%typemap(ctype) std::vector<tagTagVarValue>::size_type n "void *"
%typemap(imtype) std::vector<tagTagVarValue>::size_type n "ref ulong"
%typemap(cstype) std::vector<tagTagVarValue>::size_type n "uint"
%typemap(csin, pre="    ulong temp$csinput = $csinput;") std::vector<tagTagVarValue>::size_type n "ref temp$csinput"
%typemap(in, canthrow=1) std::vector<tagTagVarValue>::size_type n %{
  if (!$input) {
    SWIG_CSharpSetPendingExceptionArgument(SWIG_CSharpArgumentNullException, "Attempt to dereference null std::vector< TagVarValue >::size_type", 0);
    return $null;
  }
  $1 = *($&1_ltype)$input; %}

// ------------------------------------------------------------- wide strings
// .NET hands a wide string over as UTF-16 whatever the platform's wchar_t.
// Where wchar_t holds a whole code point (Linux), a surrogate pair becomes
// one character and a lone surrogate U+FFFD, so that the path converts to
// the locale's bytes like any other text.
%fragment("QvUtf16ToWString", "header") %{
static std::wstring QvUtf16ToWString(const unsigned short* text) {
  std::wstring out;
  if (sizeof(wchar_t) == 2) {
    for (; *text != 0; ++text) out.push_back(static_cast<wchar_t>(*text));
    return out;
  }
  for (; *text != 0; ++text) {
    const unsigned int unit = *text;
    const bool high = unit >= 0xD800 && unit <= 0xDBFF;
    const bool low = unit >= 0xDC00 && unit <= 0xDFFF;
    if (high && text[1] >= 0xDC00 && text[1] <= 0xDFFF) {
      out.push_back(static_cast<wchar_t>(0x10000 + ((unit - 0xD800) << 10) + (text[1] - 0xDC00)));
      ++text;
    } else {
      out.push_back(static_cast<wchar_t>(high || low ? 0xFFFD : unit));
    }
  }
  return out;
}
%}

namespace std {
%naturalvar wstring;
class wstring;
}
%typemap(ctype) std::wstring "unsigned short *"
%typemap(imtype, inattributes="[global::System.Runtime.InteropServices.MarshalAs(global::System.Runtime.InteropServices.UnmanagedType.LPWStr)]") std::wstring "string"
%typemap(cstype) std::wstring "string"
%typemap(csin) std::wstring "$csinput"
%typemap(in, canthrow=1, fragment="QvUtf16ToWString") std::wstring %{
  if (!$input) {
    SWIG_CSharpSetPendingExceptionArgument(SWIG_CSharpArgumentNullException, "null wstring", 0);
    return $null;
  }
  $1 = QvUtf16ToWString($input); %}

// The wide counterpart of the string callback, one pointer; nothing in the
// library calls it.
%insert(runtime) %{
typedef void* (SWIGSTDCALL* SWIG_CSharpWStringHelperCallback)(const wchar_t*);
static SWIG_CSharpWStringHelperCallback SWIG_csharp_wstring_callback = NULL;
#ifdef __cplusplus
extern "C"
#endif
SWIGEXPORT void SWIGSTDCALL SWIGRegisterWStringCallback_$module(SWIG_CSharpWStringHelperCallback callback) {
  SWIG_csharp_wstring_callback = callback;
}
%}
%pragma(csharp) imclasscode=%{
  protected class SWIGWStringHelper {
    [return: global::System.Runtime.InteropServices.MarshalAs(global::System.Runtime.InteropServices.UnmanagedType.LPWStr)]
    public delegate string SWIGWStringDelegate(global::System.IntPtr text);
    static SWIGWStringDelegate wstringDelegate = new SWIGWStringDelegate(CreateWString);

    [global::System.Runtime.InteropServices.DllImport("$dllimport", EntryPoint="SWIGRegisterWStringCallback_$module")]
    public static extern void SWIGRegisterWStringCallback_$module(SWIGWStringDelegate wstringDelegate);

    // wchar_t is 2 bytes on Windows and 4 elsewhere.
    static string CreateWString(global::System.IntPtr text) {
      if (text == global::System.IntPtr.Zero) return null;
      if (global::System.Environment.OSVersion.Platform == global::System.PlatformID.Win32NT)
        return global::System.Runtime.InteropServices.Marshal.PtrToStringUni(text);
      var units = new global::System.Collections.Generic.List<byte>();
      for (int offset = 0;; offset += 4) {
        int unit = global::System.Runtime.InteropServices.Marshal.ReadInt32(text, offset);
        if (unit == 0) break;
        units.AddRange(global::System.BitConverter.GetBytes(unit));
      }
      return global::System.Text.Encoding.UTF32.GetString(units.ToArray());
    }

    static SWIGWStringHelper() {
      SWIGRegisterWStringCallback_$module(wstringDelegate);
    }
  }
  static protected SWIGWStringHelper swigWStringHelper = new SWIGWStringHelper();
%}

// ------------------------------------------------------------------ pointers
// Handles and the records' pointer fields are plain IntPtr on the managed side.
%typemap(imtype) void* "global::System.IntPtr"
%typemap(cstype) void* "global::System.IntPtr"
%typemap(csin) void* "$csinput"
%typemap(csout, excode=SWIGEXCODE) void* {
    global::System.IntPtr ret = $imcall;$excode
    return ret;
  }
%typemap(csvarin, excode=SWIGEXCODE2) void* %{
    set {
      $imcall;$excode
    } %}
%typemap(csvarout, excode=SWIGEXCODE2) void* %{
    get {
      global::System.IntPtr ret = $imcall;$excode
      return ret;
    } %}

// Results through out parameters: zeroed before the call, since the library
// writes some of them only on failure.
%typemap(ctype) unsigned int& QV_OUT, unsigned int* QV_OUT "unsigned int *"
%typemap(imtype) unsigned int& QV_OUT, unsigned int* QV_OUT "ref uint"
%typemap(cstype) unsigned int& QV_OUT, unsigned int* QV_OUT "out uint"
%typemap(csin, pre="    $csinput = 0;") unsigned int& QV_OUT, unsigned int* QV_OUT "ref $csinput"
%typemap(in) unsigned int& QV_OUT, unsigned int* QV_OUT %{ $1 = ($1_ltype)$input; %}
%apply unsigned int& QV_OUT { unsigned int& error, unsigned int& count };
%apply unsigned int* QV_OUT { unsigned int* errorCode, unsigned int* count };

// Arrays of records that the library keeps: their address comes back;
// TagDesc.FromArray and TagVarValue.FromArray read them.
%typemap(ctype) tagTagDesc** descs, tagTagVarValue** values "void *"
%typemap(imtype) tagTagDesc** descs, tagTagVarValue** values "ref global::System.IntPtr"
%typemap(cstype) tagTagDesc** descs, tagTagVarValue** values "out global::System.IntPtr"
%typemap(csin, pre="    $csinput = global::System.IntPtr.Zero;") tagTagDesc** descs, tagTagVarValue** values "ref $csinput"
%typemap(in) tagTagDesc** descs, tagTagVarValue** values %{ $1 = ($1_ltype)$input; %}
// The array form of ReadTagList names the vector of the form it stands beside.
%typemap(check, canthrow=1) tagTagVarValue** values %{
  if (!$1) {
    SWIG_CSharpSetPendingExceptionArgument(SWIG_CSharpArgumentNullException, "std::vector< TagVarValue > & type is null", 0);
    return $null;
  } %}

// Raw bytes are byte arrays. The library trusts the size of a caller's
// buffer, so the proxy checks what it can before the call (ZelVarlok.cs).
%typemap(ctype) void* data, const void* data, unsigned char* data "void *"
%typemap(imtype, inattributes="[global::System.Runtime.InteropServices.In, global::System.Runtime.InteropServices.Out]") void* data, const void* data, unsigned char* data "byte[]"
%typemap(cstype) void* data, const void* data, unsigned char* data "byte[]"
%typemap(csin) void* data, const void* data, unsigned char* data "$csinput"
%typemap(in) void* data, const void* data, unsigned char* data %{ $1 = ($1_ltype)$input; %}
%typemap(csin, pre="    CheckListBuffer(handle, $csinput);") unsigned char* data "$csinput"
// The raw form of WriteTagList names the vector of the form it stands beside.
%typemap(check, canthrow=1) unsigned char* data %{
  if (!$1) {
    SWIG_CSharpSetPendingExceptionArgument(SWIG_CSharpArgumentNullException, "std::vector< std::string > & type is null", 0);
    return $null;
  } %}

// ------------------------------------------------------------------- hooks
#define QV_HOOKS_DEFINED
// The codes are read from the library, each through its own getter.
%define QV_CONSTANTS_BEGIN
%csconst(0);
%enddef
%define QV_CONSTANTS_END
%csconst(1);
%enddef
// A null list handle is refused before the class sees it.
%define QV_DELETE_HANDLE_BEGIN
%typemap(check, canthrow=1) HTAGLIST handle %{
  if (!$1) {
    SWIG_CSharpSetPendingExceptionArgument(SWIG_CSharpArgumentNullException, "HTAGLIST & type is null", 0);
    return $null;
  } %}
%enddef
%define QV_DELETE_HANDLE_END
%clear HTAGLIST handle;
%enddef
%define QV_ARRAY_BUFFER_BEGIN
%typemap(csin, pre="    CheckArrayBuffer(handle, length, $csinput, start, count);") void* data "$csinput"
%enddef
%define QV_ARRAY_BUFFER_END
%enddef
%define QV_STRUCT_BUFFER_BEGIN
%typemap(csin, pre="    CheckStructBuffer(handle, $csinput, length);") void* data, const void* data "$csinput"
%enddef
%define QV_STRUCT_BUFFER_END
%enddef
