#include "recovery/partSurvey.h"

#include "format/indexTransfer.h"
#include "recovery/fileWindow.h"

#include <orva/blockSize.h>
#include <orva/errors.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <limits>
#include <span>
#include <tuple>
#include <utility>

namespace orva {

namespace {

// The most bytes of rows that one byte of a zlib stream can stand for, and the length of the shortest stream.
constexpr std::int64_t kBestRatio = 1032;
constexpr std::int64_t kShortestStream = 9;

// The patience that a trial costs, beside the bytes that it reads and inflates; and that each byte searched, and each
// byte of a block found, earns.
constexpr std::int64_t kTrial = 4096;
constexpr std::int64_t kEarnedBySearch = 16;
constexpr std::int64_t kEarnedByBlock = 4;

constexpr const char* kDamaged = "its block is damaged";
constexpr const char* kDamagedUntold = "its block is damaged, and no index tells its size";
constexpr const char* kGone = "its blocks are gone, and no index tells their size";
constexpr const char* kGivenUp =
    "the search was given up here: what stands here could be taken for blocks again and again";

std::int64_t workOf(const blockOutcome& trial) {
    return kTrial + trial.produced + trial.consumed;
}

std::int64_t mostRowsOf(std::int64_t bytes) {
    return std::clamp<std::int64_t>(bytes, 1, std::numeric_limits<std::int64_t>::max() / kBestRatio / 2) * kBestRatio;
}

// The first two bytes of a zlib stream with the full window, as every writer of this format makes it.
bool couldBeginStream(const unsigned char* bytes) {
    return bytes[0] == 0x78 && (bytes[0] * 256 + bytes[1]) % 31 == 0 && (bytes[1] & 0x20) == 0;
}

// How much work may still be in vain before the file counts as made to be searched for ever, in bytes through the
// codec. Bytes searched and blocks found earn more, so that a long file with much damage is searched to its end.
class patience {
public:
    void spend(std::int64_t work) { fLeft -= work; }
    void earn(std::int64_t work) { fLeft += exhausted() ? 0 : work; }
    bool exhausted() const { return fLeft < 0; }

private:
    std::int64_t fLeft = std::int64_t{1} << 28;
};

// A place where, by some record, block `number` begins.
struct namedPlace {
    std::int64_t place;
    std::size_t number;

    bool operator==(const namedPlace&) const = default;
    bool operator<(const namedPlace& that) const { return std::tie(place, number) < std::tie(that.place, that.number); }
};

class partSurvey {
public:
    partSurvey(zlibStreams& streams, const std::function<void(std::int64_t)>& tell, recoverReport& report)
        : fStreams(streams), fTell(tell), fReport(report) {}

    std::optional<surveySegments> run(const recoverOptions& options) {
        const std::optional<foundPart> part = locate(options);
        if (!part || part->row0Pos <= 0 || part->row0Pos > fWindow.fileSize() - kHeadingSize) return std::nullopt;
        fReport.part = *part;
        fPlace = part->row0Pos + kHeadingSize;
        takeHeading();
        walk();
        guessSizes();
        fSegments = withSizes(fSegments, fIndex, part->row0Pos);
        commit();
        if (options.onlyCommitted) fSegments.resize(committedSegments());
        const bool hasRows = fSegments.empty() ? fCount == 0 || (fReport.hadIndex && fIndex.empty())
                                               : !std::ranges::all_of(fSegments, &surveySegment::isLost);
        return hasRows ? std::optional(std::move(fSegments)) : std::nullopt;
    }

private:
    std::optional<foundPart> locate(const recoverOptions& options) {
        if (options.part) return options.part;
        if (const auto found = findPart(fFile.GetNameStr().GetGeneric(), 1, fTell)) return found;
        const std::optional<std::int64_t> first = nextStream(kHeadingSize + 1, fWindow.fileSize());
        return first ? std::optional(foundPart{*first - kHeadingSize, false}) : std::nullopt;
    }

    void takeHeading() {
        const auto& [row0Pos, swapped] = fReport.part;
        const auto heading = headingOf(rawHeadingAt(fFile, row0Pos).data(), row0Pos, swapped);
        fReport.hadHeading = heading.has_value();
        if (!heading) return;
        fHeading = *heading;
        const std::int64_t count = fHeading._size / kRecordSize - 1;
        if (count <= (fHeading._indexPos - row0Pos - kHeadingSize) / kShortestStream) {
            fCount = count;
            fLimit = fHeading._indexPos;
        }
        if (std::optional<partIndex> index = indexOf(fFile, fHeading, swapped)) take(std::move(*index), 0);
    }

    void walk() {
        while (fPlace < fWindow.fileSize() && !isComplete()) {
            fTell(fPlace);
            if (const std::optional<blockOutcome> found = streamAt(fPlace, fPatience, fLikely)) {
                takeBlock(*found);
            } else if (!bridge()) {
                return;
            }
        }
    }

    // If the last block has neither the recorded rows nor the recorded length, an append has rewritten it and may have
    // added more.
    bool isComplete() const {
        return allRecordsUsed() && (fIndex.empty() || (isLast(fSegments.back()) && isAsRecorded(fSegments.back())));
    }
    bool allRecordsUsed() const { return fReport.hadIndex && !isShort() && fNext.number >= fIndex.size(); }
    // The index has fewer blocks than the heading counts.
    bool isShort() const { return fCount && *fCount > std::ssize(fIndex); }
    bool isLast(const surveySegment& taken) const {
        return !taken.isLost() && taken.number && *taken.number + 1 == fIndex.size();
    }
    // One match is enough: a false record can have the other one wrong.
    bool isAsRecorded(const surveySegment& taken) const {
        const filePosRecord& record = fIndex[*taken.number];
        return record.orginalSize == taken.size || record.translateSize == std::int64_t{taken.length};
    }

    void takeBlock(const blockOutcome& found) {
        const surveySegment block = blockOf(fPlace, found);
        if (block.number) expectBehind(*block.number);
        fSegments.push_back(block);
        fPlace += found.consumed;
        fPatience.earn(kEarnedByBlock * workOf(found));
        fLikely = found.consumed + found.consumed / 4;
    }

    // Expects the next block where block `number`, which begins here, ends by its recorded length.
    void expectBehind(std::size_t number) { fNext = {fPlace + fIndex[number].translateSize, number + 1}; }

    // Steps over a gap to the next complete stream. False if there is none.
    bool bridge() {
        if (!fReport.hadIndex && !bLookedForIndex) findLaterIndex();
        if (fPlace >= fLimit || allRecordsUsed()) return false;
        surveySegment gap{0, fPlace};
        gap.number = numberOf(gap);
        if (gap.number) expectBehind(*gap.number);
        const std::int64_t end = fReport.hadIndex ? fLimit : fWindow.fileSize();
        const std::optional<surveySegment> named = namedBlock();
        std::optional<std::int64_t> next;
        if (named) next = named->place;
        fPassed = 0;
        if (!gap.number || !nothingBetween(*gap.number, named)) {
            if (const auto found = nextStream(fPlace + 1, next.value_or(end))) next = found;
        }
        const bool givenUp = !next && fPatience.exhausted();
        if (!next && !fReport.hadIndex && !givenUp) return false;
        gap.estimated = true;
        gap.why = givenUp ? kGivenUp : fReport.hadIndex ? kDamaged : kDamagedUntold;
        gap.most = mostRowsOf(next.value_or(end) - fPlace - fPassed);
        fSegments.push_back(gap);
        fPlace = next.value_or(end);
        return next.has_value();
    }

    // The first complete stream behind fPlace at a place that a record names. Tries each place once. The bytes passed
    // on the way to it earn more trials, unless they are all in a hole.
    std::optional<surveySegment> namedBlock() {
        if (fNamedBlock && fNamedBlock->place > fPlace) return fNamedBlock;
        fNamedBlock.reset();
        fTried = std::max(fTried, fPlace);
        auto named = std::ranges::upper_bound(fNamed, fTried, {}, &namedPlace::place);
        for (; !fNamedBlock && named != fNamed.end() && named->place < fLimit; ++named) {
            if (named->place == fTried) continue;
            if (fFile.nextStored(fTried) < named->place) fIndexPatience.earn(kEarnedByBlock * (named->place - fTried));
            fTried = named->place;
            if (const auto found = streamAt(fTried, fIndexPatience, fLikely)) fNamedBlock = blockOf(fTried, *found);
        }
        return fNamedBlock;
    }

    // True if the records from block `number`, which should be here, follow each other without gaps up to `next`, or to
    // the last record: then no block in between was overlooked. If bytes were inserted or lost, this is known only
    // where a single block is lost.
    bool nothingBetween(std::size_t number, const std::optional<surveySegment>& next) const {
        if (!next && (isShort() || fIndexPatience.exhausted())) return false;
        const std::size_t behind = next ? next->number.value_or(number) : fIndex.size();
        std::int64_t end = fPlace;
        for (std::size_t i = number; i < behind; ++i) {
            if (i != number && (fMoved != 0 || fIndex[i].translatePos != end)) return false;
            end += fIndex[i].translateSize;
        }
        return number < behind;
    }

    // `moved`: bytes by which blocks may be behind the places that the index names.
    void take(partIndex index, std::int64_t moved) {
        fReport.hadIndex = true;
        fIndex = std::move(index.records);
        fMoved = moved;
        fLimit = index.heading._indexPos;
        if (moved != 0) fHeading._indexPos = fLimit;
        fNext = {fPlace, fSegments.size()};
        for (std::size_t i = 0; i < fIndex.size(); ++i) {
            const std::int64_t place = fIndex[i].translatePos;
            if (place < 0 || place > fWindow.fileSize()) continue;
            fNamed.push_back({place, i});
            if (moved != 0) fNamed.push_back({place + moved, i});
            fNamed.push_back({place + fIndex[i].translateSize, i + 1});
        }
        std::sort(fNamed.begin(), fNamed.end());
    }

    // Looks for an index that no usable heading points to. Takes the first one that begins where its last block ends;
    // else the first one anywhere, although it may be that of another file, whose bytes are rows of this one.
    void findLaterIndex() {
        bLookedForIndex = true;
        std::optional<partIndex> elsewhere;  // the first one
        const auto isIndex = [&](std::int64_t place, const unsigned char* bytes, std::uint32_t) {
            std::int64_t mark = 0;
            std::memcpy(&mark, bytes, sizeof mark);
            if (mark != kFirstRecordMark && mark != swapBytes(kFirstRecordMark)) return false;
            if (fPatience.exhausted()) return true;
            fPatience.spend(2 * kTrial);
            std::optional<partIndex> index = indexAt(fFile, fReport.part.row0Pos, place);
            if (!index || !recordsBlocksFound(index->records, place)) return false;
            const bool isHere = movedBy(*index) == 0;
            if (isHere) take(std::move(*index), 0);
            if (!isHere && !elsewhere) elsewhere = std::move(index);
            return isHere;
        };
        if (fWindow.find(fPlace, fWindow.fileSize(), kRecordSize, isIndex) || !elsewhere) return;
        const std::int64_t moved = movedBy(*elsewhere);
        take(std::move(*elsewhere), moved);
    }

    // The number of bytes that were inserted into the file (negative: lost from it) before this index, which no heading
    // points to: it should begin where its last block ends.
    std::int64_t movedBy(const partIndex& index) const {
        if (index.records.empty()) return 0;
        const filePosRecord& last = index.records.back();
        const bool isTold = last.translatePos >= 0 && last.translatePos - kBlockSize <= fWindow.fileSize();
        return isTold ? index.heading._indexPos - last.translatePos - last.translateSize : 0;
    }

    // An index that no heading points to is believed if its records agree with all blocks seen.
    bool recordsBlocksFound(const std::vector<filePosRecord>& index, std::int64_t place) const {
        const auto same = [](const surveySegment& seen, const filePosRecord& record) {
            return record.translatePos == seen.place && record.translateSize == std::int64_t{seen.length} &&
                   record.orginalSize == seen.size;
        };
        const std::size_t seen = fSegments.size();
        if (index.size() < seen || !std::equal(fSegments.begin(), fSegments.end(), index.begin(), same)) return false;
        return index.size() > seen ? index[seen].translatePos == fPlace : seen != 0 || place == fPlace;
    }

    surveySegment blockOf(std::int64_t place, const blockOutcome& found) const {
        surveySegment block{found.produced, place, {}, found.consumed};
        block.number = numberOf(block);
        return block;
    }

    // The number of the block that is, or should be, at block.place. If records, or the recorded length of the block
    // before, name several for that place, the one that most of them and of the block's own sizes confirm.
    std::optional<std::size_t> numberOf(const surveySegment& block) const {
        std::optional<std::size_t> number;
        std::ptrdiff_t most = 0;
        const auto offer = [&](const namedPlace& at) {
            if (at.number >= fIndex.size()) return;
            const filePosRecord& record = fIndex[at.number];
            const auto [first, last] = std::equal_range(fNamed.begin(), fNamed.end(), at);
            auto votes = last - first + (at == fNext ? 1 : 0);
            votes += (record.orginalSize == block.size ? 1 : 0) +
                     (record.translateSize == std::int64_t{block.length} ? 1 : 0);
            if (votes > most) most = votes, number = at.number;
        };
        if (fNext.place == block.place) offer(fNext);
        auto named = std::ranges::lower_bound(fNamed, block.place, {}, &namedPlace::place);
        for (; named != fNamed.end() && named->place == block.place; ++named) offer(*named);
        return number;
    }

    // Guesses the sizes of gaps, which withSizes then replaces as far as an index tells them. A full block is as long
    // as the longest one found. A gap counts as the number of full blocks that its bytes would make, within the number
    // that the heading counts. The rest of that number goes behind the last block found, if the file is cut before the
    // index or has no gap, and otherwise into the first gap.
    void guessSizes() {
        std::int64_t full = 1, stored = 0, found = 0;
        for (const surveySegment& block : fSegments) {
            if (!block.isLost()) full = std::max(full, block.size), stored += block.length, ++found;
        }
        if (found == 0) return;
        const std::int64_t usual = stored / found, seen = std::ssize(fSegments);
        const bool hasGap = found != seen;
        std::optional<std::int64_t> told = fCount;
        if (fReport.hadIndex) told = hasGap ? seen : std::ssize(fIndex);  // of a gap it tells by itself
        std::int64_t missing =
            std::max<std::int64_t>(told.value_or(std::numeric_limits<std::int64_t>::max()) - seen, 0);
        for (surveySegment& gap : fSegments) {
            if (!gap.isLost()) continue;
            const std::int64_t blocks = std::min((gap.most / kBestRatio + usual / 2) / usual, gap.most / full);
            const std::int64_t more = std::clamp<std::int64_t>(blocks - 1, 0, missing);
            gap.size = std::min((more + 1) * full, gap.most);
            missing -= more;
        }
        if (!told || missing == 0) return;
        if (hasGap && fHeading._indexPos <= fWindow.fileSize()) {
            surveySegment& first = *std::ranges::find_if(fSegments, &surveySegment::isLost);
            first.size = std::min(first.size + missing * full, first.most);
        } else {
            const char* why = fReport.hadIndex ? kDamaged : kGone;
            const auto number = fNext.number < fIndex.size() ? std::optional(fNext.number) : std::nullopt;
            fSegments.push_back({missing * full, fPlace, number, 0, true, why, missing * kBlockSize});
        }
    }

    void commit() {
        const std::span committed = std::span(fSegments).first(committedSegments());
        for (const surveySegment& segment : committed) fReport.committedRows += segment.size;
        fReport.lastRewritten = std::ranges::any_of(
            fSegments, [&](const surveySegment& segment) { return isLast(segment) && !isAsRecorded(segment); });
        if (committed.empty() || committed.back().isLost()) return;
        const surveySegment& last = committed.back();
        const bool goesOn =
            committed.size() < fSegments.size() && fSegments[committed.size()].place < fHeading._indexPos;
        fReport.lastRewritten |= goesOn || last.place + last.length > fHeading._indexPos;
    }

    std::size_t committedSegments() const {
        if (!fReport.hadHeading) return 0;
        if (fCount && std::ranges::none_of(fSegments, &surveySegment::estimated)) {
            return std::min(static_cast<std::size_t>(*fCount), fSegments.size());
        }
        // The number of blocks in the gaps is unknown.
        const auto isBehind = [&](std::int64_t place) { return place >= fHeading._indexPos; };
        const auto behind = std::ranges::find_if(fSegments, isBehind, &surveySegment::place);
        return static_cast<std::size_t>(behind - fSegments.begin());
    }

    std::optional<blockOutcome> streamAt(std::int64_t place, patience& left, std::uint32_t likely) {
        if (left.exhausted()) return std::nullopt;
        const std::int64_t before = fStreams.bytesRead();
        const blockOutcome outcome = fStreams.at(place, likely);
        if (outcome.end == blockOutcome::complete && outcome.produced != 0) return outcome;
        left.spend(workOf(outcome) + fStreams.bytesRead() - before);
        return std::nullopt;
    }

    // The first place from `from` on where a complete stream begins. Each trial first reads little: most bytes that
    // look like a stream turn out false within a few bytes.
    std::optional<std::int64_t> nextStream(std::int64_t from, std::int64_t end) {
        const auto isStream = [&](std::int64_t place, const unsigned char* bytes, std::uint32_t) {
            if (!couldBeginStream(bytes) || fPatience.exhausted()) return false;
            return streamAt(place, fPatience, 0).has_value();
        };
        return fWindow.find(from, end, 2, isStream);
    }

    // Called when a search has skipped a hole of `passed` bytes and read `read` bytes at `place`.
    void searched(std::int64_t place, std::int64_t passed, std::int64_t read) {
        fTell(place);
        fPassed += passed;
        fPatience.earn(kEarnedBySearch * read);
    }

    zlibStreams& fStreams;
    const std::function<void(std::int64_t)>& fTell;
    recoverReport& fReport;
    surveySegments fSegments;
    ORVA_File& fFile = fStreams.file();
    fileWindow fWindow{fFile, [this](auto... moved) { searched(moved...); }};
    compressionHeading fHeading{};
    std::optional<std::int64_t> fCount;  // blocks that the heading counts, if they fit
    std::vector<filePosRecord> fIndex;
    std::int64_t fMoved = 0;                   // see take()
    std::int64_t fLimit = fWindow.fileSize();  // from here on, only blocks right behind the last one are taken
    std::int64_t fPlace = 0;                   // end of the last block taken, where the next one begins
    namedPlace fNext{};                        // of the next block, by the recorded length of the one before
    std::vector<namedPlace> fNamed;            // all places that records name, ascending
    std::int64_t fTried = 0;                   // the last of these places tried
    std::optional<surveySegment> fNamedBlock;  // the block found at one of them last
    bool bLookedForIndex = false;
    patience fPatience;
    patience fIndexPatience;
    std::int64_t fPassed = 0;            // bytes of holes that the search has skipped
    std::uint32_t fLikely = kBlockSize;  // expected length of the next block
};

}  // namespace

std::optional<surveySegments> surveyed(zlibStreams& streams, const recoverOptions& options,
                                       const std::function<void(std::int64_t)>& tell, recoverReport& report) {
    return partSurvey(streams, tell, report).run(options);
}

}  // namespace orva
