// Routing the library's messages of a thread to the molecule it works on.

#include "screen/library_messages.h"

#include <cctype>
#include <cstdio>
#include <mutex>

#include "qv/error.h"

namespace hermite::screen {

namespace {

/// The warning list of the calling thread's capture; null without one.
thread_local std::vector<std::string>* threadWarnings = nullptr;

std::mutex installMutex;
unsigned int liveCaptures = 0;
QVSystem::QVErrorCallback previousHandler;

void PassOn(QVSystem::QVSeverity severity, const std::string& text) {
    QVSystem::QVErrorCallback previous;
    {
        std::lock_guard<std::mutex> lock(installMutex);
        previous = previousHandler;
    }
    if (previous) {
        previous(severity, text);
        return;
    }
    std::fprintf(stderr, "%s: %s\n", severity == QVSystem::QVSeverity::Fatal ? "Fatal" : "Warning",
                 text.c_str());
}

void RoutingHandler(QVSystem::QVSeverity severity, const std::string& text) {
    std::vector<std::string>* warnings = threadWarnings;
    if (warnings == nullptr) {
        PassOn(severity, text);
        return;
    }
    std::string message = text;
    while (!message.empty() && std::isspace(static_cast<unsigned char>(message.back()))) {
        message.pop_back();
    }
    if (severity == QVSystem::QVSeverity::Fatal) {
        throw LibraryError(message);
    }
    warnings->push_back(std::move(message));
}

}  // namespace

MessageCapture::MessageCapture(std::vector<std::string>& warnings) : previous_(threadWarnings) {
    {
        std::lock_guard<std::mutex> lock(installMutex);
        if (liveCaptures++ == 0) {
            previousHandler = QVSystem::QVThrow.SetHandler(RoutingHandler);
        }
    }
    threadWarnings = &warnings;
}

MessageCapture::~MessageCapture() {
    threadWarnings = previous_;
    std::lock_guard<std::mutex> lock(installMutex);
    if (--liveCaptures == 0) {
        QVSystem::QVThrow.SetHandler(std::move(previousHandler));
        previousHandler = nullptr;
    }
}

}  // namespace hermite::screen
