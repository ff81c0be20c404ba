// What only the Python binding needs: results of out parameters come back as
// further results of the call, raw bytes cross as Python buffers whose size is
// checked first, arrays of records come back as tuples of copies, every call
// that may wait for the controller runs with the interpreter lock released,
// and the few calls of the public header that the managed forms lack.
// Included by QorVarlok.i when generating Python; compiled into the Python
// extension only, so libQorVarlok.so exports nothing more for it.

%include <exception.i>
%include <std_wstring.i>

%{
#include <algorithm>
#include <cstring>
#include <new>
#include <stdexcept>
#include <string>
#include <vector>
%}

// The long forms of ReadArray and WriteArray take the same Python arguments
// as the int forms: one form each.
%ignore ZelVarlok::ReadArray(HTAGLIST, long, void*, unsigned int, unsigned int);
%ignore ZelVarlok::WriteArray(HTAGLIST, long, void*, unsigned int, unsigned int);

// ------------------------------------------------------------------ exceptions
// A C++ exception must not leave a wrapper: it would end the interpreter. The
// vectors can run out of memory or be indexed beyond their end; the class
// catches its own.
%{
// The kind and text of the C++ exception in flight; called in a catch (...).
static void QvCaught(int& kind, std::string& text) {
  try {
    throw;
  } catch (const std::bad_alloc& e) {
    kind = SWIG_MemoryError, text = e.what();
  } catch (const std::length_error& e) {
    kind = SWIG_MemoryError, text = e.what();
  } catch (const std::out_of_range& e) {
    kind = SWIG_IndexError, text = e.what();
  } catch (const std::exception& e) {
    kind = SWIG_RuntimeError, text = e.what();
  } catch (...) {
    kind = SWIG_RuntimeError, text = "unknown exception";
  }
}
%}

%exception %{
  try {
    $action
  } catch (...) {
    int qvKind = 0;
    std::string qvText;
    QvCaught(qvKind, qvText);
    SWIG_exception(qvKind, qvText.c_str());
  }
%}

// Calls that take the library's process-wide lock, and may wait up to the
// controller's time limits for it or for an answer, let other Python threads
// run meanwhile. Their arguments are converted before and their results
// after, under the interpreter lock.
%define QV_RELEASES_GIL(NAME)
%exception NAME %{
  {
    PyThreadState* qvThread = PyEval_SaveThread();
    try {
      $action
    } catch (...) {
      int qvKind = 0;
      std::string qvText;
      QvCaught(qvKind, qvText);
      PyEval_RestoreThread(qvThread);
      SWIG_exception(qvKind, qvText.c_str());
    }
    PyEval_RestoreThread(qvThread);
  }
%}
%enddef
QV_RELEASES_GIL(ZelVarlok::~ZelVarlok)
QV_RELEASES_GIL(ZelVarlok::InitializeCom)
QV_RELEASES_GIL(ZelVarlok::ConnectToPlcDevice)
QV_RELEASES_GIL(ZelVarlok::DisconnectFromDevice)
QV_RELEASES_GIL(ZelVarlok::ExitVarlokCommunication)
QV_RELEASES_GIL(ZelVarlok::CreateTagsHandle)
QV_RELEASES_GIL(ZelVarlok::DeleteTagsHandle)
QV_RELEASES_GIL(ZelVarlok::ReadTagList)
QV_RELEASES_GIL(ZelVarlok::WriteTagList)
QV_RELEASES_GIL(ZelVarlok::ReadArray)
QV_RELEASES_GIL(ZelVarlok::WriteArray)
QV_RELEASES_GIL(ZelVarlok::ReadStructField)
QV_RELEASES_GIL(ZelVarlok::WriteStructField)
QV_RELEASES_GIL(ZelVarlok::GetTagDescByName)
QV_RELEASES_GIL(ZelVarlok::GetTagsListLength)
// The symbol file calls share one lock of the process, held through a parse.
QV_RELEASES_GIL(CreateSymbolConfigHandle)
QV_RELEASES_GIL(GetSymbolConfigParseResult)
QV_RELEASES_GIL(GetSymbolConfigToppestTagsDesc)
QV_RELEASES_GIL(ReleaseSymbolConfigHandle)

// ----------------------------------------------------------- out parameters
%fragment("QvAppend", "header") %{
// The call's result and its out parameters as one tuple: (result, out, ...).
// Unlike SWIG's own, a null pointer result stays in it as None. None of the
// wrapped calls returns a tuple of its own.
static PyObject* QvAppend(PyObject* result, PyObject* out) {
  if (out == nullptr) {
    Py_XDECREF(result);
    return nullptr;
  }
  if (result == nullptr) return out;
  const Py_ssize_t n = PyTuple_Check(result) ? PyTuple_GET_SIZE(result) : 1;
  PyObject* tuple = PyTuple_New(n + 1);
  if (tuple == nullptr) {
    Py_DECREF(result);
    Py_DECREF(out);
    return nullptr;
  }
  if (PyTuple_Check(result)) {
    for (Py_ssize_t i = 0; i < n; ++i) {
      PyObject* item = PyTuple_GET_ITEM(result, i);
      Py_INCREF(item);
      PyTuple_SET_ITEM(tuple, i, item);
    }
    Py_DECREF(result);
  } else {
    PyTuple_SET_ITEM(tuple, 0, result);
  }
  PyTuple_SET_ITEM(tuple, n, out);
  return tuple;
}
%}
%fragment("QvAppend");

// Zeroed before the call, since the library writes some only on failure, and
// appended to the results: handle, error = varlok.CreateTagsHandle(name).
%typemap(in, numinputs=0) unsigned int& QV_OUT (unsigned int temp = 0), unsigned int* QV_OUT (unsigned int temp = 0)
  "$1 = &temp;"
%typemap(argout) unsigned int& QV_OUT, unsigned int* QV_OUT {
  $result = QvAppend($result, PyLong_FromUnsignedLong(*$1));
  if ($result == nullptr) SWIG_fail;
}
%apply unsigned int& QV_OUT { unsigned int& error, unsigned int& count };
%apply unsigned int* QV_OUT { unsigned int* errorCode };

// ------------------------------------------------------------ record arrays
%fragment("QvDescTuple", "header") %{
// Owned copies of count records: the tuple outlives the array it came from.
static PyObject* QvDescTuple(const tagTagDesc* descs, unsigned int count) {
  PyObject* tuple = PyTuple_New(static_cast<Py_ssize_t>(descs != nullptr ? count : 0));
  if (tuple == nullptr || descs == nullptr) return tuple;
  for (unsigned int i = 0; i < count; ++i) {
    tagTagDesc* copy = new (std::nothrow) tagTagDesc(descs[i]);
    PyObject* item = copy != nullptr ? SWIG_NewPointerObj(copy, SWIGTYPE_p_tagTagDesc, SWIG_POINTER_OWN) : nullptr;
    if (item == nullptr) {
      Py_DECREF(tuple);
      return PyErr_NoMemory();
    }
    PyTuple_SET_ITEM(tuple, static_cast<Py_ssize_t>(i), item);
  }
  return tuple;
}
%}
%fragment("QvDescTuple");

// The arrays of the symbol configuration come back as a tuple of copies:
// code, descs = GetSymbolConfigToppestTagsDesc(handle).
%typemap(in, numinputs=0) (tagTagDesc** descs, unsigned int* count) (tagTagDesc* array = nullptr, unsigned int n = 0)
  "$1 = &array; $2 = &n;"
%typemap(argout) (tagTagDesc** descs, unsigned int* count) {
  $result = QvAppend($result, QvDescTuple(*$1, *$2));
  if ($result == nullptr) SWIG_fail;
}

// The array form of ReadTagList gives the list's values as one bytes object,
// each value in list order and at its tag's size, the controller's binary
// form: code, data = varlok.ReadTagList_INTERFACE_1(handle). It is the copy
// that the hot loop of a Python caller needs, and the only one.
%typemap(in, numinputs=0) (tagTagVarValue** values, unsigned int& count) (tagTagVarValue* array = nullptr, unsigned int n = 0)
  "$1 = &array; $2 = &n;"
%typemap(argout) (tagTagVarValue** values, unsigned int& count) {
  const tagTagVarValue* array = *$1;
  const unsigned int n = array != nullptr ? *$2 : 0;
  Py_ssize_t total = 0;
  for (unsigned int i = 0; i < n; ++i)
    if (array[i].Value != nullptr && array[i].ValueLength > 0) total += array[i].ValueLength;
  PyObject* bytes = PyBytes_FromStringAndSize(nullptr, total);
  char* at = bytes != nullptr ? PyBytes_AS_STRING(bytes) : nullptr;
  for (unsigned int i = 0; at != nullptr && i < n; ++i) {
    if (array[i].Value == nullptr || array[i].ValueLength <= 0) continue;
    std::memcpy(at, array[i].Value, static_cast<size_t>(array[i].ValueLength));
    at += array[i].ValueLength;
  }
  $result = QvAppend($result, bytes);
  if ($result == nullptr) SWIG_fail;
}

// --------------------------------------------------------------- raw bytes
// Raw bytes are any object with the buffer interface (bytes, bytearray,
// memoryview, array.array); a read needs a writable one. None is a null
// buffer, which the library answers with its code.
%fragment("QvBuffer", "header") %{
struct QvBuffer {
  Py_buffer view;
  bool held = false;
  QvBuffer() { std::memset(&view, 0, sizeof(view)); }
  ~QvBuffer() {
    if (held) PyBuffer_Release(&view);
  }
  QvBuffer(const QvBuffer&) = delete;
  QvBuffer& operator=(const QvBuffer&) = delete;
  // False with a Python error set when the object cannot serve.
  bool take(PyObject* object, bool writable) {
    if (object == Py_None) return true;
    if (PyObject_GetBuffer(object, &view, writable ? (PyBUF_SIMPLE | PyBUF_WRITABLE) : PyBUF_SIMPLE) != 0) return false;
    held = true;
    return true;
  }
  void* data() const { return held ? view.buf : nullptr; }
  Py_ssize_t size() const { return held ? view.len : 0; }
};

// Bytes that the values of a defined list take; 0 for a handle that the
// object does not know, which the library then refuses.
static long long QvListBytes(ZelVarlok* varlok, HTAGLIST handle) {
  long long bytes = 0;
  Py_BEGIN_ALLOW_THREADS
  try {
    const int n = varlok->GetTagsListLength(handle);
    if (n > 0) {
      std::vector<tagTagDesc*> descs(static_cast<size_t>(n), nullptr);
      const int got = varlok->GetTagDescByDefinedHandle(handle, descs.data());
      for (int i = 0; i < got && i < n; ++i)
        if (descs[i] != nullptr && descs[i]->Size > 0) bytes += descs[i]->Size;
    }
  } catch (...) {
    bytes = 0;
  }
  Py_END_ALLOW_THREADS
  return bytes;
}

// The library copies as many bytes as the call moves, whatever the size of
// the caller's buffer: a shorter one is refused here, before the call.
static bool QvRequireBytes(const QvBuffer& buffer, long long needed) {
  if (!buffer.held || buffer.size() >= needed) return true;
  PyErr_Format(PyExc_ValueError, "the buffer holds %zd bytes, the call moves %lld", buffer.size(), needed);
  return false;
}
%}
%fragment("QvBuffer");

%typemap(in) void* data (QvBuffer buffer), const void* data (QvBuffer buffer),
    unsigned char* data (QvBuffer buffer) {
  // A read writes into it.
  if (!buffer.take($input, std::strstr("$symname", "_Read") != nullptr)) SWIG_fail;
  $1 = ($1_ltype)buffer.data();
}
%typemap(typecheck, precedence=SWIG_TYPECHECK_POINTER) void* data, const void* data, unsigned char* data
  "$1 = $input == Py_None || PyObject_CheckBuffer($input);"

// Each check below knows where its signature puts the buffer: the
// temporaries of the data argument are named by its position, self being 1.
// A whole array (start and count 0) moves the list's bytes, a range count
// elements of length bytes, never more than the list holds.
%typemap(check) (ZelVarlok* self, HTAGLIST handle, int length, void* data, unsigned int start, unsigned int count) {
  if (buffer4.held) {
    const long long listBytes = QvListBytes($1, $2);
    const long long rangeBytes = static_cast<long long>($6) * static_cast<unsigned int>($3);
    if (!QvRequireBytes(buffer4, $5 == 0 && $6 == 0 ? listBytes : std::min(rangeBytes, listBytes))) SWIG_fail;
  }
}
// A structure moves its length, which the library compares with the tag's
// size, and the list's bytes.
%typemap(check) (ZelVarlok* self, HTAGLIST handle, void* data, int length),
    (ZelVarlok* self, HTAGLIST handle, const void* data, int length) {
  if (buffer3.held && !QvRequireBytes(buffer3, std::max(static_cast<long long>($4), QvListBytes($1, $2)))) SWIG_fail;
}
// The raw WriteTagList copies the whole list's bytes; count is the number of tags.
%typemap(check) (ZelVarlok* self, HTAGLIST handle, unsigned char* data, unsigned int count) {
  if (buffer3.held && !QvRequireBytes(buffer3, QvListBytes($1, $2))) SWIG_fail;
}

// Over TCP a ranged WriteArray writes the whole array from data, whatever the
// range, so a buffer that holds the range only would be read beyond its end
// and the interpreter's memory sent to the controller. The proxy remembers the
// transport of its last successful InitializeCom; unless that was shared
// memory, a ranged write needs a buffer of the whole array.
%feature("pythonappend") ZelVarlok::InitializeCom %{
        if val == 0:
            self._com_type = comType
%}
%feature("pythonprepend") ZelVarlok::WriteArray %{
        if (start or count) and data is not None and getattr(self, "_com_type", None) != COM_TYPE_LOCAL:
            needed = self.GetListBytes(handle)
            if memoryview(data).nbytes < needed:
                raise ValueError("the buffer holds %d bytes; over TCP the call writes the whole array, %d"
                                 % (memoryview(data).nbytes, needed))
%}

// ------------------------------------------------------------------- texts
// The texts of the codes are the library's GBK bytes; the caller decodes them.
%typemap(out) const char* QV_BYTES {
  if ($1 == nullptr) {
    $result = SWIG_Py_Void();
  } else {
    $result = PyBytes_FromString($1);
  }
}
%apply const char* QV_BYTES { const char* ReadErrorDescription };
const char* ReadErrorDescription(unsigned int code);
const char* GetVarlokVersionInfo();

// The children of a tag, by the TagsHandle of its record.
QV_RELEASES_GIL(GetSymbolConfigSubTagsDesc)
unsigned int GetSymbolConfigSubTagsDesc(void* tagsHandle, tagTagDesc** descs, unsigned int* count);

// ------------------------------------------------------ what the class adds
// The description queries of the class, answered with copies that the
// caller owns, and the bytes of a value record.
%newobject ZelVarlok::GetTagDescByName;
%extend ZelVarlok {
  // A tag of the table by full name, None when there is none; needs InitializeCom.
  tagTagDesc* GetTagDescByName(const std::string& name) {
    const tagTagDesc* desc = $self->GetTagDescByName(name);
    return desc != nullptr ? new tagTagDesc(*desc) : nullptr;
  }
  int GetTagsListLength(HTAGLIST handle) { return $self->GetTagsListLength(handle); }
  // Bytes that the values of a defined list take; 0 for an unknown handle.
  long long GetListBytes(HTAGLIST handle) { return QvListBytes($self, handle); }
  // The descriptions of a defined list's tags, in list order.
  PyObject* GetTagDescByDefinedHandle(HTAGLIST handle) {
    std::vector<tagTagDesc> copies;
    bool failed = false;
    Py_BEGIN_ALLOW_THREADS
    try {
      const int n = $self->GetTagsListLength(handle);
      if (n > 0) {
        std::vector<tagTagDesc*> descs(static_cast<size_t>(n), nullptr);
        const int got = $self->GetTagDescByDefinedHandle(handle, descs.data());
        for (int i = 0; i < got && i < n; ++i)
          if (descs[i] != nullptr) copies.push_back(*descs[i]);
      }
    } catch (...) {
      failed = true;
    }
    Py_END_ALLOW_THREADS
    if (failed) return PyErr_NoMemory();
    return QvDescTuple(copies.data(), static_cast<unsigned int>(copies.size()));
  }
}
%extend tagTagVarValue {
  // A copy of the ValueLength bytes at Value, the controller's binary form.
  PyObject* GetValueBytes() const {
    if ($self->Value == nullptr || $self->ValueLength <= 0) return PyBytes_FromStringAndSize(nullptr, 0);
    return PyBytes_FromStringAndSize(static_cast<const char*>($self->Value), $self->ValueLength);
  }
}
