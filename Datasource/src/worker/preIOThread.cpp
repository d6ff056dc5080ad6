#include "worker/preIOThread.h"

PreIOThreadBase::~PreIOThreadBase() = default;

std::unique_ptr<CallBackObject> PreIOThreadBase::newLoop(bool bRead, std::uint32_t) {
    if (bRead) return std::make_unique<newThreadForRead>();
    return std::make_unique<newThreadForWrite>();
}

bool PreIOThreadBase::initThreads(bool bRead) {
    fLoops.clear();
    for (std::uint32_t i = 0; i < fThreads; ++i) fLoops.push_back(newLoop(bRead, i));
    bWrite = !bRead;
    pThreadPool = new ktThreadPool(static_cast<int>(fThreads), 0);
    pThreadPool->init();
    return true;
}

bool PreIOThreadBase::startThreads() {
    pThreadPool->startAll();
    for (auto& loop : std::exchange(fLoops, {})) pThreadPool->runCallBack(loop.release(), this, 1);
    return true;
}

bool PreIOThreadBase::noOperation() {
    return true;
}

bool PreIOThreadBase::stopThreads() {
    if (pThreadPool == nullptr || !isMakersProcess()) return true;
    if (!bWrite) getBlock(nullptr, 0, 0);
    pThreadPool->stopAll();
    return true;
}

bool PreIOThreadBase::destroyThreads() {
    if (isMakersProcess()) delete std::exchange(pThreadPool, nullptr);
    return true;
}

void startWorker(PreIOThreadBase& worker, bool bRead) {
    try {
        worker.initThreads(bRead);
        worker.startThreads();
    } catch (...) {
        if (!bRead) worker.putBlock(nullptr, 0, 0);  // the loops that have begun
        worker.stopThreads();
        worker.destroyThreads();
        throw;
    }
}
