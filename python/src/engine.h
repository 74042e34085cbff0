#pragma once

#include <pybind11/pybind11.h>

namespace kwq::python {

/// The Engine and Frame classes: the capture engine on a camera, its frames as an iterator.
void defineEngine(pybind11::module_& m);

}  // namespace kwq::python
