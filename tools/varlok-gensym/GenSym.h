// Writes large synthetic symbol files for tests and benchmarks: N published
// variables in groups of up to 1000 under one application, cycling through
// elementary types, a string, a structure, an array of DInt and an array of
// structures. Sizes follow the layout rule of examples/demo/Demo.xml.
#pragma once

#include <cstddef>
#include <string>

namespace qorvarlok::gensym {

// False when the file cannot be written.
bool WriteSymbolFile(const std::string& path, size_t variables);

// What a reader must find in such a file.
struct Expected {
  size_t variables = 0;
  size_t groups = 0;      // second-level groups under the application
  size_t flatTags = 0;    // records of the flat list of all tags
  size_t arrays = 0;      // entries of the array bounds registry
};
Expected ExpectedFor(size_t variables);

}  // namespace qorvarlok::gensym
