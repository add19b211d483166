// Error routing and floating-point mode of the library's calls from Python.

#include "library_calls.h"

#if defined(__SSE__)
#include <xmmintrin.h>
#endif

#include <algorithm>
#include <utility>

#include "conversions.h"

namespace hermite::python {

// =============================================================================================
// Errors and warnings

namespace {

/// The Python class of hermite.HermiteWarning (owned by the module).
PyObject* warningType = nullptr;

}  // namespace

void Diagnostics::AddWarning(std::string text) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (std::find(warnings_.begin(), warnings_.end(), text) == warnings_.end()) {
        warnings_.push_back(std::move(text));
    }
}

std::vector<std::string> Diagnostics::TakeWarnings() {
    std::lock_guard<std::mutex> lock(mutex_);
    std::vector<std::string> taken;
    taken.swap(warnings_);
    return taken;
}

ThreadRoute::~ThreadRoute() {
    for (std::string& warning : raised_) {
        diagnostics_.AddWarning(std::move(warning));
    }
}

void SetWarningType(py::handle type) {
    warningType = type.ptr();
}

void EmitWarnings(Diagnostics& diagnostics) {
    for (const std::string& text : diagnostics.TakeWarnings()) {
        if (PyErr_WarnEx(warningType != nullptr ? warningType : PyExc_RuntimeWarning,
                         Utf8(text).c_str(), 1) < 0) {
            throw py::error_already_set();
        }
    }
}

// =============================================================================================
// Floating-point mode

namespace {

#if defined(__SSE__)
constexpr unsigned int kFlushToZero = 0x8000;       // MXCSR bit 15
constexpr unsigned int kDenormalsAreZero = 0x0040;  // MXCSR bit 6
#endif

}  // namespace

FloatingPointScope::FloatingPointScope() : saved_(0) {
#if defined(__SSE__)
    saved_ = _mm_getcsr();
    _mm_setcsr(saved_ | kFlushToZero | kDenormalsAreZero);
#endif
}

FloatingPointScope::~FloatingPointScope() {
#if defined(__SSE__)
    // Keep the exception flags raised meanwhile; restore only the two mode bits.
    const unsigned int modes = kFlushToZero | kDenormalsAreZero;
    _mm_setcsr((_mm_getcsr() & ~modes) | (saved_ & modes));
#endif
}

void RestoreDefaultFloatingPointMode() {
#if defined(__SSE__)
    _mm_setcsr(_mm_getcsr() & ~(kFlushToZero | kDenormalsAreZero));
#endif
}

}  // namespace hermite::python
