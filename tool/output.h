// Where a verb's bytes go: standard output, or a file that appears under its name when it is complete.
//
// Failure: orva::SystemError. A reader that has gone is no failure: `open` tells of it.
#pragma once

#include <orva/orva.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>

namespace CLI {
class App;
}

struct outputOptions {
    bool force = false;
    bool noSync = false;

    void addTo(CLI::App& app);
};

// Usage errors: standard output for a finished file, and an output that is one of the inputs.
void requireFileName(const std::string& out);
void requireOtherFile(const std::string& out, std::span<const std::string> inputs);

class output {
public:
    // Standard output.
    output();
    // The file `name`, for whoever may use `input`; "-" is standard output. A device or a pipe is written to as it is.
    output(const std::string& name, const outputOptions& options, const orva::Path& input);
    ~output();

    void write(const void* bytes, std::size_t size);
    void write(const std::string& text) { write(text.data(), text.size()); }
    // False once nobody reads any more; writing is then without effect.
    bool open() const { return !bReaderGone; }
    // Bytes; at least so many, once the reader has gone.
    std::int64_t written() const { return fWritten; }
    // What was written is complete.
    void finish();

private:
    std::string fName;
    std::unique_ptr<orva::pendingFile> fPending;
    int fDescriptor = -1;
    bool bDurable = true;
    bool bReaderGone = false;
    std::int64_t fWritten = 0;
};
