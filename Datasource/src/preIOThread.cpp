#include "preIOThread.h"

#include "assertion.h"

#include <orva/platform.h>

#include <utility>

class PreIOThreadBase::newThreadForRead : public CallBackObject {
public:
    newThreadForRead() : CallBackObject(nullptr) {}
    int onCallBack(void* prtData) override {
        ORVA_ASSERT(prtData != nullptr, "prtData!=0");
        auto* pParent = static_cast<PreIOThreadBase*>(prtData);
        while (pParent->readLoopStep() == 0) {
        }
        return 0;
    }
};

class PreIOThreadBase::newThreadForWrite : public CallBackObject {
public:
    newThreadForWrite() : CallBackObject(nullptr) {}
    int onCallBack(void* prtData) override {
        ORVA_ASSERT(prtData != nullptr, "prtData!=0");
        auto* pParent = static_cast<PreIOThreadBase*>(prtData);
        while (pParent->writeLoopStep() == 0) {
        }
        return 0;
    }
};

CallBackObject* PreIOThreadBase::makeReadCallBack() {
    return new newThreadForRead;
}

CallBackObject* PreIOThreadBase::makeWriteCallBack() {
    return new newThreadForWrite;
}

PreIOThreadBase::~PreIOThreadBase() = default;

bool PreIOThreadBase::initThreads(bool bRead) {
    bWrite = !bRead;
    fProcess = platform::processId();
    pCallBack = bRead ? makeReadCallBack() : makeWriteCallBack();
    pThreadPool = new ktThreadPool(1, 0);
    pThreadPool->init();
    return true;
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
