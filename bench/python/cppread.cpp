// _cppread: the C++ call that TagList.read() makes, timed in C++ inside the
// same Python process, on the same connection and list, so that the Python
// layer's share of a read can be told from the library's.
//   read_times(varlok, handle, iterations) -> list of microseconds
// varlok and handle are the addresses of the ZelVarlok and of the list
// (int(controller.varlok.this), int(handle)). Benchmark use only.
#define PY_SSIZE_T_CLEAN
#include <Python.h>

#include <QorVarlok/ZelVarlok.h>

#include <chrono>
#include <vector>

namespace {

PyObject* ReadTimes(PyObject*, PyObject* args) {
  unsigned long long varlokAddress = 0;
  unsigned long long handleAddress = 0;
  Py_ssize_t iterations = 0;
  if (!PyArg_ParseTuple(args, "KKn", &varlokAddress, &handleAddress, &iterations)) return nullptr;
  auto* varlok = reinterpret_cast<ZelVarlok*>(static_cast<uintptr_t>(varlokAddress));
  auto* handle = reinterpret_cast<HTAGLIST>(static_cast<uintptr_t>(handleAddress));
  if (varlok == nullptr || handle == nullptr || iterations < 0) {
    PyErr_SetString(PyExc_ValueError, "a ZelVarlok, a list and a count are needed");
    return nullptr;
  }
  std::vector<double> samples(static_cast<size_t>(iterations));
  unsigned int code = 0;
  Py_BEGIN_ALLOW_THREADS
  for (double& sample : samples) {
    tagTagVarValue* values = nullptr;
    unsigned int count = 0;
    const auto start = std::chrono::steady_clock::now();
    code = varlok->ReadTagList(handle, &values, count);
    sample = std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - start).count();
    if (code != 0) break;
  }
  Py_END_ALLOW_THREADS
  if (code != 0) return PyErr_Format(PyExc_RuntimeError, "ReadTagList answered 0x%08X", code);
  PyObject* list = PyList_New(iterations);
  for (Py_ssize_t i = 0; list != nullptr && i < iterations; ++i)
    PyList_SET_ITEM(list, i, PyFloat_FromDouble(samples[static_cast<size_t>(i)]));
  return list;
}

PyMethodDef kMethods[] = {
    {"read_times", ReadTimes, METH_VARARGS, "microseconds of iterations ReadTagList calls in C++"},
    {nullptr, nullptr, 0, nullptr},
};

PyModuleDef kModule = {PyModuleDef_HEAD_INIT, "_cppread", nullptr, -1, kMethods,
                       nullptr, nullptr, nullptr, nullptr};

}  // namespace

PyMODINIT_FUNC PyInit__cppread() { return PyModule_Create(&kModule); }
