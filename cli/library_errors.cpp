// The library's warnings printed or collected, its fatal errors thrown as LibraryError.

#include "cli/library_errors.h"

#include <iostream>

#include "qv/error.h"

namespace hermite::cli {

namespace {

/// Where the library's warnings raised in this thread go (null: printed).
thread_local std::vector<std::string>* warningSink = nullptr;

}  // namespace

LibraryErrors::LibraryErrors(std::string command) {
    QVSystem::QVThrow.SetHandler([command](QVSystem::QVSeverity severity, const std::string& text) {
        if (severity == QVSystem::QVSeverity::Fatal) {
            throw LibraryError(text);
        }
        if (warningSink != nullptr) {
            warningSink->push_back(text);
        } else {
            std::cerr << "hermite " << command << ": warning: " << text << "\n";
        }
    });
}

LibraryErrors::~LibraryErrors() {
    QVSystem::QVThrow.SetHandler(nullptr);
}

void LibraryErrors::CollectWarnings(std::vector<std::string>* sink) {
    warningSink = sink;
}

}  // namespace hermite::cli
