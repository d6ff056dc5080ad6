// PreIOThreadSeveral
#include "part/zcmpsMultiThread.h"

bool PreIOThreadSeveral::initThreads(bool bRead) {
    fCallBacks.reserve(fThreads);
    while (fCallBacks.size() < fThreads) fCallBacks.push_back(bRead ? makeReadCallBack() : makeWriteCallBack());
    makePool(bRead, fThreads);
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
