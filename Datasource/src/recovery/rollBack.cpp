// Undoing an interrupted safe append by its side file.
#include "file/fileCodes.h"
#include "file/namedFile.h"
#include "part/keptTail.h"

#include <orva/errors.h>
#include <orva/inspect.h>

namespace orva {

namespace {

// An append begins only once its side file is whole and durable, so beside a side file cut short the data stands as it
// was. Where it does not, the side file was damaged later, and must not be taken for one cut short.
void refuseTornFile(const std::string& name) {
    const std::optional<foundPart> part = findPart(name);
    if (!part) throw DamagedFileError(sideFileName(name), "checksum", "\"" + name + "\" has no heading either");
    finishedPart opened(name, *part);
    if (opened.blockCount() != 0) opened.verifyBlock(opened.blockCount() - 1);
}

}  // namespace

rollBackResult rollBack(const std::string& name) {
    ORVA_File file;
    openOrThrow(file, name, "r+b", kWriteFailed);
    keptTail tail;
    const sideFileState found = readSideFile(name, file, tail);
    if (found == sideFileState::absent) return rollBackResult::nothingToDo;
    if (found == sideFileState::whole) {
        restoreTail(file, tail);
        file.Sync();
    } else {
        refuseTornFile(name);
    }
    removeSideFile(name);
    file.Close();
    return found == sideFileState::whole ? rollBackResult::rolledBack : rollBackResult::sideFileStale;
}

}  // namespace orva
