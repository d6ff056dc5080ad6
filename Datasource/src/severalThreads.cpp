// PreIOThreadSeveral
#include "assertion.h"
#include "zcmpsMultiThread.h"

#include <orva/platform.h>

bool PreIOThreadSeveral::initThreads(bool bRead) {
    bWrite = !bRead;
    fProcess = platform::processId();
    fCallBacks.reserve(fThreads);
    while (fCallBacks.size() < fThreads) fCallBacks.push_back(bRead ? makeReadCallBack() : makeWriteCallBack());
    pThreadPool = new ktThreadPool(static_cast<int>(fThreads), 0);
    pThreadPool->init();
    return true;
}

bool PreIOThreadSeveral::startThreads() {
    pThreadPool->startAll();
    while (!fCallBacks.empty()) {
        CallBackObject* callBack = fCallBacks.back();
        fCallBacks.pop_back();
        pThreadPool->runCallBack(callBack, static_cast<PreIOThreadBase*>(this), 1);
    }
    return true;
}

bool PreIOThreadSeveral::destroyThreads() {
    for (CallBackObject* callBack : fCallBacks) delete callBack;
    fCallBacks.clear();
    return PreIOThreadBase::destroyThreads();
}
