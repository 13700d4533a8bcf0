#pragma once

#include "engine.h"

// What the module is put together from, one file each.

namespace korvane_python {

void DefinePublicOperations(py::class_<Handle>& hand);
void DefineServiceOperations(py::class_<Handle>& hand);
void DefineUpdate(py::module_& module, py::class_<Handle>& hand);

py::tuple ToTuple(const kv::VendorInfo& vendor);

}  // namespace korvane_python
