// An encrypted stream against its components: the plain stream over the same bytes, and OpenSSL's cipher alone over
// them. The rest is the cost of the encrypted path itself: room for results, copies, the tail.
#include "base/blockBuffer.h"
#include "benchData.h"
#include "paired.h"

#include <orva/filestr.h>

#include <openssl/evp.h>

#include <algorithm>
#include <array>
#include <memory>
#include <string>

namespace {

using namespace bench;

constexpr std::size_t kPass = 8 * std::size_t{kBlockSize};

// The cipher as the process's service runs it, block after block between two existing buffers.
class BareCipher {
public:
    BareCipher() : fContext(EVP_CIPHER_CTX_new(), EVP_CIPHER_CTX_free), fOut(kBlockSize) {}
    void run(bool encrypting, const Bytes& data) {
        const std::array<unsigned char, 32> key{1, 2, 3};
        require(EVP_CipherInit_ex(fContext.get(), EVP_aes_256_ecb(), nullptr, key.data(), nullptr, encrypting) == 1 &&
                    EVP_CIPHER_CTX_set_padding(fContext.get(), 0) == 1,
                "the cipher does not start");
        for (std::size_t at = 0; at < data.size(); at += kBlockSize) {
            int done = 0;
            const int size = static_cast<int>(std::min<std::size_t>(kBlockSize, data.size() - at));
            require(EVP_CipherUpdate(fContext.get(), fOut.get(), &done, data.data() + at, size) == 1,
                    "the cipher fails");
            benchmark::DoNotOptimize(fOut.get()[0]);
        }
    }

private:
    std::unique_ptr<EVP_CIPHER_CTX, void (*)(EVP_CIPHER_CTX*)> fContext;
    orva::blockBuffer fOut;
};

struct Setup {
    explicit Setup(const Scratch& scratch)
        : data(noise(kPass)),
          plain(std::make_shared<ORVA_FileStream>(scratch.path("plain").c_str(), "w+b")),
          encrypted(std::make_shared<ORVA_FileStream>(scratch.path("encrypted").c_str(), "w+b", true)) {
        require(plain->Good() == 1 && encrypted->Good() == 1, "cannot open the files of the streams");
        write(*plain);
        write(*encrypted);
    }
    void write(ORVA_FileStream& stream) {
        stream.Seek(0, ORVA_StrBaseIO::SeekFromStart);
        for (std::size_t at = 0; at < kPass; at += kRequest) {
            require(stream.Write(data.data() + at, kRequest) == kRequest, "short Write");
        }
        stream.Close();
    }
    void read(ORVA_FileStream& stream) {
        stream.Seek(0, ORVA_StrBaseIO::SeekFromStart);
        for (std::size_t at = 0; at < kPass; at += kRequest) {
            require(stream.Read(data.data() + at, kRequest) == kRequest, "short Read");
        }
    }

    static constexpr std::uint32_t kRequest = kBlockSize / 64;
    Bytes data;
    BareCipher cipher;
    std::shared_ptr<ORVA_FileStream> plain;
    std::shared_ptr<ORVA_FileStream> encrypted;
};

Pair sequential(const Scratch& scratch, bool writing) {
    const auto setup = std::make_shared<Setup>(scratch);
    const auto pass = [setup, writing](ORVA_FileStream& stream) {
        writing ? setup->write(stream) : setup->read(stream);
    };
    const auto peer = [=] {
        return threadSeconds([&] {
            pass(*setup->plain);
            setup->cipher.run(writing, setup->data);
        });
    };
    const auto ours = [=] { return threadSeconds([&] { pass(*setup->encrypted); }); };
    return {peer, ours, static_cast<double>(kPass) / kBlockSize};
}

}  // namespace

int main(int argc, char** argv) {
    SetKeepEncrypt(true);
    const Scratch scratch;
    add("cipher: sequential Write / plain stream + EVP", timeAtMost(1.25), [&] { return sequential(scratch, true); });
    add("cipher: sequential Read / plain stream + EVP", timeAtMost(1.25), [&] { return sequential(scratch, false); });
    return run(argc, argv);
}
