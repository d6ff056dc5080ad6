// Writes a data set of scripts/bench: makeRows survey|measurements|noise BYTES FILE
#include "benchData.h"

#include <fcntl.h>

#include <cstdio>
#include <exception>
#include <map>
#include <string>

int main(int argc, char** argv) {
    try {
        const std::map<std::string, bench::Bytes (*)(std::size_t)> sets{
            {"survey", bench::surveyRows}, {"measurements", bench::measuredRows}, {"noise", bench::noise}};
        bench::require(argc == 4 && sets.contains(argv[1]), "usage: makeRows survey|measurements|noise BYTES FILE");
        const bench::Bytes rows = sets.at(argv[1])(std::stoull(argv[2]));
        bench::BareFile(argv[3], O_WRONLY | O_CREAT | O_TRUNC).write(rows.data(), rows.size());
        return 0;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "makeRows: %s\n", error.what());
        return 1;
    }
}
