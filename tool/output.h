// The destination of a verb's bytes: standard output, or a file that appears under its name when it is complete.
//
// Failure: orva::SystemError. That the reader has gone is no failure: see open().
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

// Usage errors: standard output as a finished file, and an output that is one of the inputs.
void requireFileName(const std::string& out);
void requireOtherFile(const std::string& out, std::span<const std::string> inputs);

class output {
public:
    // Standard output.
    output();
    // The file `name`, with the permissions of `input`; "-" is standard output. A device or pipe is written to
    // directly.
    output(const std::string& name, const outputOptions& options, const orva::Path& input);
    ~output();

    void write(const void* bytes, std::size_t size);
    void write(const std::string& text) { write(text.data(), text.size()); }
    // False once the reader has gone; writing then has no effect.
    bool open() const { return !bReaderGone; }
    // Bytes written; a lower bound once the reader has gone.
    std::int64_t written() const { return fWritten; }
    // Completes the output: closes it, and gives a file its name.
    void finish();

private:
    std::string fName;
    std::unique_ptr<orva::pendingFile> fPending;
    int fDescriptor = -1;
    bool bDurable = true;
    bool bReaderGone = false;
    std::int64_t fWritten = 0;
};
