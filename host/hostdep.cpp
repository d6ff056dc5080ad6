#include <orva/hostdep.h>
#include <orva/platform.h>

#include <cerrno>

void ExtNameStr::SetGeneric(const std::string& name) {
    fName = name;
}
void ExtNameStr::SetU8(const std::string& name) {
    fName = name;
}
const std::string& ExtNameStr::GetGeneric() const noexcept {
    return fName;
}
const std::string& ExtNameStr::GetCP() const noexcept {
    return fName;
}

int ExtNameStr::Sopen(int oflag, int shflag, int pmode) const {
    if (fName.find('\0') != std::string::npos) {
        errno = ENOENT;
        return -1;
    }
    return platform::openShared(fName.c_str(), oflag, shflag, pmode);
}
