// Replays the fuzzer's seed corpus and a fixed stream of pseudo-random
// inputs through the plug-in, in every build flavour: malformed graphs must
// be refused or survived, never crash, and a graph whose every operation
// was reported supported gets an executor (outside the known gaps).
#include <dirent.h>
#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "graph_decoder.h"
#include "log_capture.h"
#include "zelsim/control.h"

namespace {

std::vector<std::string> corpusFiles() {
    std::vector<std::string> files;
    if (DIR* dir = opendir(ZEL_FUZZ_CORPUS)) {
        while (dirent* entry = readdir(dir)) {
            const std::string name = entry->d_name;
            if (name.size() > 4 && name.compare(name.size() - 4, 4, ".bin") == 0) {
                files.push_back(std::string(ZEL_FUZZ_CORPUS) + "/" + name);
            }
        }
        closedir(dir);
    }
    return files;
}

TEST(FuzzReplay, CorpusGraphsAreRefusedOrRun) {
    zelsim::reset();
    zeltest::LogCapture logs;
    const auto files = corpusFiles();
    ASSERT_GT(files.size(), 50u) << "seed corpus missing at " << ZEL_FUZZ_CORPUS;
    for (const auto& path : files) {
        std::ifstream in(path, std::ios::binary);
        const std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        auto graph = zelfuzz::decodeGraph(bytes.data(), bytes.size());
        const zelfuzz::Outcome outcome = zelfuzz::exerciseGraph(*graph);
        EXPECT_EQ("", zelfuzz::brokenPromise(*graph, outcome)) << path;
    }
    // Every executor and model built along the way was released.
    EXPECT_EQ(zelsim::liveGraphs(), 0);
}

TEST(FuzzReplay, PseudoRandomGraphsAreRefusedOrRun) {
    zelsim::reset();
    zeltest::LogCapture logs;
    uint32_t state = 12345;
    auto next = [&state] {
        state ^= state << 13;
        state ^= state >> 17;
        state ^= state << 5;
        return state;
    };
    for (int i = 0; i < 1500; ++i) {
        std::vector<uint8_t> bytes(next() % 400);
        for (auto& b : bytes) b = static_cast<uint8_t>(next() >> 24);
        auto graph = zelfuzz::decodeGraph(bytes.data(), bytes.size());
        const zelfuzz::Outcome outcome = zelfuzz::exerciseGraph(*graph);
        EXPECT_EQ("", zelfuzz::brokenPromise(*graph, outcome)) << "pseudo-random input " << i;
    }
    EXPECT_EQ(zelsim::liveGraphs(), 0);
}

}  // namespace
