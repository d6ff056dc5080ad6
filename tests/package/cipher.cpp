// Succeeds if the cipher finds its libcrypto, which is needed at run time though nothing links it.
#include <orva/orva.h>

int main() {
    const unsigned char rows[16] = "fifteen letters";
    unsigned char* out = nullptr;
    int size = 0;
    return workdir::Encrypt(&out, &size, rows, 16) == 1 && workdir::FreeOutData(out) == 1 ? 0 : 1;
}
