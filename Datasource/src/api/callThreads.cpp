#include "api/callThreads.h"

#include <orva/ktthread.h>

#include <system_error>

namespace orva {

namespace {

class oneMore final : public CallBackObject {
public:
    explicit oneMore(const std::function<void(bool)>& work) : CallBackObject(nullptr), fWork(work) {}
    int onCallBack(void*) override {
        fWork(false);
        return 0;
    }

private:
    const std::function<void(bool)>& fWork;
};

}  // namespace

void inThreads(std::uint32_t threads, const std::function<void(bool)>& work) {
    if (threads <= 1) return work(true);
    const int others = static_cast<int>(threads) - 1;
    ktThreadPool pool(others, 0);
    pool.init();
    try {
        pool.startAll();
        for (int i = 0; i < others; ++i) pool.runCallBack(new oneMore(work), nullptr, 0);
    } catch (const std::system_error&) {  // NOLINT(bugprone-empty-catch): this thread does all of it
    }
    work(true);
    pool.stopAll();
}

}  // namespace orva
