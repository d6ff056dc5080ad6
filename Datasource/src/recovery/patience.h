// patience: how much may still be tried in vain before a file counts as made to be tried for ever. What is read and
// found earns more, so that a long file with much damage is searched to its end.
//
// Units:   bytes through the codec, or as much work as that many would be.
#pragma once

#include <cstdint>

namespace orva {

class patience {
public:
    void spend(std::int64_t work) { fLeft -= work; }
    void earn(std::int64_t work) { fLeft += work; }
    bool exhausted() const { return fLeft < 0; }

private:
    std::int64_t fLeft = std::int64_t{1} << 28;
};

}  // namespace orva
