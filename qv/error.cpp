#include "qv/error.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <vector>

namespace QVSystem {

QVErrorHandler QVThrow;

namespace {

std::string FormatV(const char* format, va_list args) {
    va_list copy;
    va_copy(copy, args);
    const int length = std::vsnprintf(nullptr, 0, format, copy);
    va_end(copy);
    if (length <= 0) {
        return std::string();
    }
    std::vector<char> buffer(static_cast<std::size_t>(length) + 1);
    std::vsnprintf(buffer.data(), buffer.size(), format, args);
    return std::string(buffer.data(), static_cast<std::size_t>(length));
}

void PrintToStderr(QVSeverity severity, const std::string& text) {
    const char* label = severity == QVSeverity::Fatal ? "Fatal" : "Warning";
    std::fprintf(stderr, "%s: %s", label, text.c_str());
    if (text.empty() || text.back() != '\n') {
        std::fputc('\n', stderr);
    }
    std::fflush(stderr);
}

}  // namespace

void QVErrorHandler::Warning(const char* format, ...) {
    va_list args;
    va_start(args, format);
    const std::string text = FormatV(format, args);
    va_end(args);
    Dispatch(QVSeverity::Warning, text);
}

void QVErrorHandler::Fatal(const char* format, ...) {
    va_list args;
    va_start(args, format);
    const std::string text = FormatV(format, args);
    va_end(args);
    Dispatch(QVSeverity::Fatal, text);
    std::abort();
}

QVErrorCallback QVErrorHandler::SetHandler(QVErrorCallback handler) {
    std::lock_guard<std::mutex> lock(mutex_);
    std::swap(handler, handler_);
    return handler;
}

void QVErrorHandler::Dispatch(QVSeverity severity, const std::string& text) {
    QVErrorCallback handler;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        handler = handler_;
    }
    if (handler) {
        handler(severity, text);
    } else {
        PrintToStderr(severity, text);
    }
}

}  // namespace QVSystem
