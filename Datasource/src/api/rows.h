// orva::Rows: the rows of a Reader as values of type T.
//
//   struct Trade { std::int64_t time; double price; };
//   const orva::Rows<Trade> trades(orva::Reader("trades.orva"));
//   Trade last = trades[trades.size() - 1];
//   for (const Trade& trade : trades) sum += trade.price;
//
// Units:   rows, numbered from 0, each sizeof(T) bytes in the layout of memory. A row may cross a block border.
// Owner:   holds a copy of the Reader.
// Threads: const operations may run on any thread; an iterator belongs to one.
// Failure: as the Reader's. The constructor throws UsageError if the rows are not a whole number of T, or the file has
//          the other byte order.
#pragma once

#include <orva/error.h>
#include <orva/reader.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cstddef>
#include <cstring>
#include <functional>
#include <iterator>
#include <optional>
#include <span>
#include <type_traits>
#include <utility>
#include <vector>

namespace orva {

template <class T>
class Rows {
    static_assert(std::is_trivially_copyable_v<T>, "rows are stored as the bytes of their values");

public:
    explicit Rows(Reader reader);

    // The count as of now: refresh() of the Reader, or of a copy, may add rows.
    i64 size() const { return fReader.size() / kSize; }
    // UsageError outside 0 to size() - 1. Neighbouring rows come from the Reader's cached blocks.
    T operator[](i64 row) const;
    // Reads rows from `first` on, as many as there are and fit, and returns their count. UsageError if `first` is below
    // 0.
    i64 read(i64 first, std::span<T> to) const;
    // Reads row rows[i] into to[i], in any order; inflates each block once. UsageError if the lengths differ, or a row
    // is outside 0 to size() - 1.
    void take(std::span<const i64> rows, std::span<T> to) const;
    // The first row whose `projection` is not below `key`, or size(); the rows must ascend by it. Inflates about
    // log2(blocks) blocks.
    template <class Key, class Projection = std::identity>
    i64 lower_bound(const Key& key, Projection projection = {}) const;

    // Iterates from the first row on, a block at a time, without filling the cache. The iterator yields values, and is
    // at the end once it has failed.
    class iterator;
    iterator begin() const { return iterator(fReader); }
    std::default_sentinel_t end() const { return {}; }

private:
    static constexpr i64 kSize = sizeof(T);
    void require(bool fulfilled, const char* what) const {
        if (!fulfilled) throw UsageError(what, fReader.path());
    }

    Reader fReader;
};

template <class T>
class Rows<T>::iterator {
public:
    using value_type = T;
    using difference_type = std::ptrdiff_t;

    iterator() = default;
    explicit iterator(Reader reader) : fReader(std::move(reader)) { load(); }

    T operator*() const {
        std::array<std::byte, sizeof(T)> bytes;
        std::memcpy(bytes.data(), fBytes.data() + fAt, sizeof(T));
        return std::bit_cast<T>(bytes);
    }
    iterator& operator++() {
        fAt += sizeof(T);
        if (fBytes.size() - fAt < sizeof(T)) load();
        return *this;
    }
    void operator++(int) { ++*this; }
    friend bool operator==(const iterator& it, std::default_sentinel_t) {
        return it.fBytes.size() - it.fAt < sizeof(T);
    }

private:
    static constexpr i64 kMost = i64{1} << 22;  // bytes at a time: a damaged index may claim impossibly long blocks
    // Reads until there is a whole row: one across a border needs the next block too.
    void load();

    std::optional<Reader> fReader;
    std::vector<std::byte> fBytes;
    std::size_t fAt = 0;  // position of the current row in fBytes
    i64 fNext = 0;        // offset of the rows after fBytes
};

template <class T>
Rows<T>::Rows(Reader reader) : fReader(std::move(reader)) {
    require(!fReader.swapped(), "its rows have the other byte order: read their bytes with orva::Reader");
    require(fReader.size() % kSize == 0, "the size of its rows is not a multiple of the size of this type");
}

template <class T>
T Rows<T>::operator[](i64 row) const {
    std::array<std::byte, sizeof(T)> bytes;
    require(row >= 0 && row < size() && fReader.read_at(row * kSize, bytes) == sizeof(T), "row number out of range");
    return std::bit_cast<T>(bytes);
}

template <class T>
i64 Rows<T>::read(i64 first, std::span<T> to) const {
    require(first >= 0, "the first row must be 0 or more");
    if (first >= size()) return 0;
    return static_cast<i64>(fReader.read_at(first * kSize, std::as_writable_bytes(to)) / sizeof(T));
}

template <class T>
void Rows<T>::take(std::span<const i64> rows, std::span<T> to) const {
    require(rows.size() == to.size(), "the number of rows to take must equal the number of places for them");
    const i64 count = size();
    std::vector<ReadRequest> requests(rows.size());
    for (std::size_t i = 0; i < rows.size(); ++i) {
        require(rows[i] >= 0 && rows[i] < count, "row number out of range");
        requests[i] = {rows[i] * kSize, std::as_writable_bytes(to.subspan(i, 1))};
    }
    fReader.read_ranges(requests);
    for (const ReadRequest& request : requests) require(request.got == sizeof(T), "row number out of range");
}

template <class T>
template <class Key, class Projection>
i64 Rows<T>::lower_bound(const Key& key, Projection projection) const {
    i64 first = 0;
    for (i64 count = size(); count > 0;) {
        const i64 half = count / 2;
        const bool below = std::invoke(projection, (*this)[first + half]) < key;
        if (below) first += half + 1;
        count = below ? count - half - 1 : half;
    }
    return first;
}

template <class T>
void Rows<T>::iterator::load() {
    fBytes.erase(fBytes.begin(), fBytes.begin() + static_cast<std::ptrdiff_t>(fAt));
    fAt = 0;
    while (fBytes.size() < sizeof(T)) {
        const std::size_t kept = fBytes.size();
        const i64 end = std::min<i64>(fReader->end_of_block(fNext), fNext + kMost);
        if (end == fNext) return;
        fBytes.resize(kept + static_cast<std::size_t>(end - fNext));
        try {
            fBytes.resize(kept + fReader->read_at(fNext, std::span(fBytes).subspan(kept)));
        } catch (...) {
            fBytes.resize(kept);  // bytes that were not read must not count as rows
            throw;
        }
        fNext = end;
    }
}

}  // namespace orva
