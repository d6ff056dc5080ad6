#include "worker/preIOThread.h"

#include "base/assertion.h"

#include <orva/platform.h>

#include <utility>

namespace {

// Turns a pool thread into a loop over one step of the worker that `prtData` is.
int runLoop(void* prtData, std::int32_t (PreIOThreadBase::*step)()) {
    ORVA_ASSERT(prtData != nullptr, "prtData!=0");
    auto* pParent = static_cast<PreIOThreadBase*>(prtData);
    while ((pParent->*step)() == 0) {
    }
    return 0;
}

}  // namespace

class PreIOThreadBase::newThreadForRead : public CallBackObject {
public:
    newThreadForRead() : CallBackObject(nullptr) {}
    int onCallBack(void* prtData) override { return runLoop(prtData, &PreIOThreadBase::readLoopStep); }
};

class PreIOThreadBase::newThreadForWrite : public CallBackObject {
public:
    newThreadForWrite() : CallBackObject(nullptr) {}
    int onCallBack(void* prtData) override { return runLoop(prtData, &PreIOThreadBase::writeLoopStep); }
};

CallBackObject* PreIOThreadBase::makeReadCallBack() {
    return new newThreadForRead;
}

CallBackObject* PreIOThreadBase::makeWriteCallBack() {
    return new newThreadForWrite;
}

PreIOThreadBase::~PreIOThreadBase() = default;

bool PreIOThreadBase::initThreads(bool bRead) {
    pCallBack = bRead ? makeReadCallBack() : makeWriteCallBack();
    makePool(bRead, 1);
    return true;
}

void PreIOThreadBase::makePool(bool bRead, std::uint32_t threads) {
    bWrite = !bRead;
    fProcess = platform::processId();
    pThreadPool = new ktThreadPool(static_cast<int>(threads), 0);
    pThreadPool->init();
}

bool PreIOThreadBase::startThreads() {
    pThreadPool->startAll();
    bHandedOver = true;
    pThreadPool->runCallBack(pCallBack, this, 1);
    return true;
}

bool PreIOThreadBase::noOperation() {
    return true;
}

bool PreIOThreadBase::stopThreads() {
    if (pThreadPool == nullptr || !inOwnProcess()) return true;
    if (!bWrite) getBlock(nullptr, 0, 0);
    pThreadPool->stopAll();
    return true;
}

bool PreIOThreadBase::destroyThreads() {
    if (!bHandedOver) delete pCallBack;
    if (inOwnProcess()) delete pThreadPool;
    return true;
}

bool PreIOThreadBase::inOwnProcess() const {
    return fProcess == platform::processId();
}

std::unique_ptr<PreIOThreadBase> startedWorker(std::unique_ptr<PreIOThreadBase> worker, bool bRead) {
    try {
        worker->initThreads(bRead);
        worker->startThreads();
    } catch (...) {
        if (!bRead) worker->putBlock(nullptr, 0, 0);  // the loops that have begun
        worker->stopThreads();
        worker->destroyThreads();
        throw;
    }
    return worker;
}
