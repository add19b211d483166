// Plain and gzip-compressed text files, line by line.

#include "io/text_source.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>

#include <cerrno>
#include <cstring>

namespace hermite::io {

namespace {

/// Size of the read buffer; longer lines are read in several pieces.
const unsigned int LineBufferSize = 1 << 16;
/// Size of zlib's input buffer.
const unsigned int CompressedBufferSize = 1 << 17;

/// "cannot open file: <strerror>".
std::string CannotOpen(int errorNumber) {
    return std::string("cannot open file: ") + std::strerror(errorNumber);
}

/// zlib's message without the name it gives a file opened from a descriptor ("<fd:4>: "): the
/// number depends on what else the process has open, and the caller names the file itself.
std::string WithoutDescriptorName(const std::string& message) {
    const std::string::size_type end = message.find(">: ");
    if (message.compare(0, 4, "<fd:") != 0 || end == std::string::npos) {
        return message;
    }
    return message.substr(end + 3);
}

}  // namespace

TextSource::TextSource(const std::string& path) : buffer_(LineBufferSize) {
    const int descriptor = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (descriptor < 0) {
        error_ = CannotOpen(errno);
        return;
    }
    struct stat status;
    if (::fstat(descriptor, &status) != 0) {
        error_ = CannotOpen(errno);
        ::close(descriptor);
        return;
    }
    if (S_ISDIR(status.st_mode)) {
        error_ = CannotOpen(EISDIR);
        ::close(descriptor);
        return;
    }
    file_ = ::gzdopen(descriptor, "rb");
    if (file_ == nullptr) {
        error_ = CannotOpen(ENOMEM);
        ::close(descriptor);
        return;
    }
    ::gzbuffer(file_, CompressedBufferSize);
}

TextSource::~TextSource() {
    Close();
}

bool TextSource::ReadLine(std::string& line) {
    line.clear();
    if (!Ok()) {
        return false;
    }
    bool readAnything = false;
    while (line.empty() || line.back() != '\n') {
        if (::gzgets(file_, buffer_.data(), static_cast<int>(buffer_.size())) == nullptr) {
            int code = Z_OK;
            const char* message = ::gzerror(file_, &code);
            if (code != Z_OK) {
                error_ = std::string("read error: ") +
                         (code == Z_ERRNO ? std::strerror(errno) : WithoutDescriptorName(message));
                return false;
            }
            break;  // end of file
        }
        readAnything = true;
        line.append(buffer_.data());
    }
    if (!readAnything) {
        return false;
    }
    while (!line.empty() && (line.back() == '\n' || line.back() == '\r')) {
        line.pop_back();
    }
    ++lineNumber_;
    return true;
}

void TextSource::Close() {
    if (file_ != nullptr) {
        ::gzclose(file_);
        file_ = nullptr;
    }
}

}  // namespace hermite::io
