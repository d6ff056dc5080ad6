#include <orva/rows.h>
#include <orva/writer.h>

#include <future>
#include <iostream>
#include <numeric>
#include <vector>

struct Trade {
    std::int64_t time;
    double price;
};

void store(const std::vector<Trade>& trades) {
    orva::Writer writer("trades.orva", {.threads = 2, .replace = true});
    writer.write_rows(trades);
    writer.finish();  // now the file is there, whole; an exception before leaves nothing of it
}

double sumOfPrices(const orva::Rows<Trade>& trades) {  // by two threads
    const auto sum = [&](std::int64_t first, std::int64_t end) {
        std::vector<Trade> rows(static_cast<std::size_t>(end - first));
        trades.read(first, rows);
        return std::accumulate(rows.begin(), rows.end(), 0.0, [](double s, const Trade& t) { return s + t.price; });
    };
    auto half = std::async(std::launch::async, sum, 0, trades.size() / 2);
    return sum(trades.size() / 2, trades.size()) + half.get();
}

void addDay(const std::vector<Trade>& trades) {
    auto writer = orva::Writer::append("trades.orva", {.roll_back = true});  // undoes first what a crash has cut off
    writer.write_rows(trades);
    writer.finish();
}

int main() {
    std::vector<Trade> day(500'000);
    for (std::int64_t i = 0; i < 500'000; ++i) day[static_cast<std::size_t>(i)] = {i, 1.5};
    store(day);
    addDay(day);
    const orva::Rows<Trade> trades(orva::Reader("trades.orva"));
    std::cout << "row 700000 is " << trades[700'000].time << ", the sum " << sumOfPrices(trades) << '\n';
}
