// Runs steps on a stream beside its model, and compares the calls that they make of the file.
#pragma once

#include "stream/modelStream.h"
#include "support/fileCalls.h"

#include <orva/errtext.h>

#include <cerrno>
#include <cstring>
#include <functional>
#include <map>
#include <regex>
#include <sstream>

namespace support {

struct Script {
    const char* name;
    std::size_t fileSize;
    const char* steps;      // apart by blanks, each a letter of `kinds` and its number
    const char* transfers;  // that they make, whole blocks without a size, and "end" if EndOfFile says so then
};

class ScriptTest : public TempDir {
protected:
    void open(std::size_t fileSize) {
        content = random.noise(fileSize);
        model = std::make_unique<ModelStream>(made("data", content), "r+b", content);
    }
    void close() {
        model = nullptr;
        EXPECT_TRUE(sameBytes(readBytes(path("data")), content));
    }
    ORVA_FileStream& s() { return model->stream(); }
    void run(const std::string& script) {
        std::istringstream steps(script);
        bool fails = false;
        for (std::string step; steps >> step; fails = std::strchr("RWS", step[0]) != nullptr) {
            SCOPED_TRACE(step + " at " + std::to_string(model->position()));
            const auto act = [&] { kinds.at(step[0])(std::atoll(step.c_str() + 1)); };
            if (fails) {
                EXPECT_THROW(act(), FileError);
            } else {
                act();
            }
        }
    }
    void check(const Script& script) {
        SCOPED_TRACE(script.name);
        open(script.fileSize);
        FileCalls watched;
        calls = &watched;
        run(script.steps);
        const std::string transfers = std::regex_replace(watched.transfers(), std::regex("\\+4190208"), "");
        EXPECT_EQ(transfers + (s().EndOfFile() != 0 ? ", end" : ""), script.transfers);
        close();
    }

    const std::map<char, std::function<void(std::int64_t)>> kinds = {
        {'s', [&](auto n) { model->seek(n); }},
        {'m', [&](auto n) { model->seek(n, ORVA_StrBaseIO::SeekFromCurrent); }},
        {'e', [&](auto n) { model->seek(n, ORVA_StrBaseIO::SeekFromEnd); }},
        {'r', [&](auto n) { model->read(static_cast<std::size_t>(n)); }},
        {'w', [&](auto n) { model->write(random.noise(static_cast<std::size_t>(n))); }},
        {'f', [&](auto) { EXPECT_EQ(s().Flush(), 1); }},
        {'c', [&](auto) { EXPECT_EQ(s().Close(), 1); }},
        {'g', [&](auto good) { EXPECT_EQ(s().Good(), good); }},
        {'G', [&](auto) { s().Clear(); }},
        {'d', [&](auto n) { s().Write("dropped", static_cast<std::uint32_t>(n)), model->reset(); }},
        {'o', [&](auto) { s().Open(s().GetNameStr(), "r+b"), model->moveTo(0); }},
        {'k', [&](auto) { model = std::make_unique<ModelStream>(*model); }},  // goes on with a copy
        {'p', [&](auto on) { on ? s().EnablePreReading() : s().DisablePreReading(); }},
        {'t', [&](auto on) { on ? s().EnableMultiThreadReading() : s().DisableMultiThreadReading(); }},
        // Waits for the n-th read of another thread. R, W, S: the next step's call fails. A: another thread's.
        {'a', [&](auto n) { calls->awaitReads(static_cast<int>(n)); }},
        {'R', [&](auto) { calls->fail(FileCalls::Call::Read, EIO); }},
        {'S', [&](auto) { calls->fail(FileCalls::Call::Seek, EIO); }},
        {'W', [&](auto) { calls->fail(FileCalls::Call::Write, ENOSPC); }},
        {'A', [&](auto) { calls->fail(FileCalls::Call::Read, EIO, 1, true); }},
    };
    RandomBytes random{17};
    Bytes content;
    std::unique_ptr<ModelStream> model;
    FileCalls* calls = nullptr;
};

}  // namespace support
