// The common root of every object that crosses the C interface as a handle.
// Its virtual destructor is the first virtual operation of every exported
// interface, so one delete entry point can release any handle.
#pragma once

namespace ztsdlib {

class ExportedObject {
public:
    virtual ~ExportedObject() = default;

protected:
    ExportedObject() = default;
    ExportedObject(const ExportedObject&) = default;
    ExportedObject& operator=(const ExportedObject&) = default;
};

}  // namespace ztsdlib
