// zelrun as a user runs it: exit codes, what it prints, its options and the
// conformance mode.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

namespace {

namespace fs = std::filesystem;

struct Outcome {
    int exitCode = -1;
    std::string out;
    std::string err;
};

std::string readAll(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

class Zelrun : public ::testing::Test {
protected:
    void SetUp() override {
        if (ZEL_CROSSCOMPILING) GTEST_SKIP() << "launching zelrun from an emulated test is not supported";
        mDir = fs::path(::testing::TempDir()) /
               ("zelrun_" + std::string(::testing::UnitTest::GetInstance()->current_test_info()->name()));
        fs::remove_all(mDir);
        fs::create_directories(mDir);
    }
    void TearDown() override {
        std::error_code ec;
        if (!mDir.empty()) fs::remove_all(mDir, ec);
    }

    // Runs zelrun with `arguments` (shell words), `environment` prefixed.
    Outcome run(const std::string& arguments, const std::string& environment = "") {
        const fs::path errPath = mDir / "stderr.txt";
        const std::string command =
            environment + " '" ZEL_ZELRUN_PATH "' " + arguments + " 2>'" + errPath.string() + "'";
        Outcome result;
        FILE* pipe = popen(command.c_str(), "r");
        if (pipe == nullptr) {
            ADD_FAILURE() << "cannot start " << command;
            return result;
        }
        char buffer[4096];
        size_t n;
        while ((n = fread(buffer, 1, sizeof buffer, pipe)) > 0) result.out.append(buffer, n);
        const int status = pclose(pipe);
        result.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        result.err = readAll(errPath);
        return result;
    }

    std::string write(const std::string& name, const std::string& text) {
        const fs::path path = mDir / name;
        fs::create_directories(path.parent_path());
        std::ofstream(path, std::ios::binary) << text;
        return path.string();
    }

    // conv_quant8 of the conformance set with another expected output.
    static std::string convWithExpected(const std::string& expected) {
        std::string text = readAll(kConv);
        const std::string from = "\"expected\": [[15, 15, 15, 15]]";
        const size_t at = text.find(from);
        EXPECT_NE(at, std::string::npos);
        if (at != std::string::npos) text.replace(at, from.size(), "\"expected\": [[" + expected + "]]");
        return text;
    }

    static constexpr const char* kConv = ZEL_CONFORMANCE_DIR "/quant8/conv_quant8.json";
    static constexpr const char* kFloatAdd = ZEL_CONFORMANCE_DIR "/float32/add.json";
    fs::path mDir;
};

bool contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

TEST_F(Zelrun, UsageErrorsExitWithTwo) {
    for (const char* arguments : {"", "--log loud m.json", "--repeat 0 m.json", "--frobnicate m.json", "a.json b.json",
                                  "--conformance d m.json", "m.json --plugin"}) {
        const Outcome r = run(arguments);
        EXPECT_EQ(r.exitCode, 2) << arguments;
        EXPECT_TRUE(contains(r.err, "usage: zelrun")) << arguments << ": " << r.err;
    }
}

TEST_F(Zelrun, UnreadableModelsExitWithOne) {
    Outcome r = run("/nonexistent/m.json");
    EXPECT_EQ(r.exitCode, 1);
    EXPECT_TRUE(contains(r.err, "zelrun: /nonexistent/m.json: cannot open file")) << r.err;

    const std::string bad = write("bad.json", "{\"operands\": [");
    r = run("'" + bad + "'");
    EXPECT_EQ(r.exitCode, 1);
    EXPECT_TRUE(contains(r.err, bad + ": malformed JSON: ")) << r.err;

    r = run(std::string(kConv) + " --plugin /nonexistent/plugin.so");
    EXPECT_EQ(r.exitCode, 1);
    EXPECT_TRUE(contains(r.err, "cannot load plug-in /nonexistent/plugin.so")) << r.err;
}

TEST_F(Zelrun, LenientLoadingHandsOddGraphsToThePlugin) {
    // The activation input of the convolution names operand 7 of 7.
    std::string text = readAll(kConv);
    const std::string from = "[0, 1, 2, 3, 3, 3, 3, 4, 4, 5]";
    ASSERT_NE(text.find(from), std::string::npos);
    text.replace(text.find(from), from.size(), "[0, 1, 2, 3, 3, 3, 3, 4, 4, 7]");
    const std::string model = write("odd.json", text);

    Outcome r = run("'" + model + "'");
    EXPECT_EQ(r.exitCode, 1);
    EXPECT_TRUE(contains(r.err, "odd.json: operations[0].inputs[9]: operand index 7 out of range (7 operands)"))
        << r.err;

    r = run("--lenient '" + model + "'");
    EXPECT_EQ(r.exitCode, 3) << "the plug-in refuses the operation and survives: " << r.out << r.err;
    EXPECT_TRUE(contains(r.out, "declined")) << r.out;
}

TEST_F(Zelrun, RunsAndMatchesASupportedModel) {
    const Outcome r = run(std::string("--log debug ") + kConv);
    EXPECT_EQ(r.exitCode, 0) << r.out << r.err;
    EXPECT_TRUE(contains(r.err, "D zel-android-log-ravine: In ZelAccelerator::isGraphSupported()\n")) << r.err;
    EXPECT_TRUE(contains(r.err, "D zel-android-log-ravine: In ZelExecutor::execute()\n")) << r.err;
    EXPECT_TRUE(contains(r.out, "0    CONV_2D                        supported")) << r.out;
    EXPECT_TRUE(contains(r.out, "output 0 (operand 6, TENSOR_QUANT8 [1,2,2,1]): 15 15 15 15")) << r.out;
    EXPECT_TRUE(contains(r.out, "outputs match the expected values")) << r.out;
}

TEST_F(Zelrun, DeclinesAnUnsupportedModel) {
    const Outcome r = run(kFloatAdd);
    EXPECT_EQ(r.exitCode, 3) << r.out << r.err;
    EXPECT_TRUE(contains(r.out, "0    ADD                            not supported")) << r.out;
    EXPECT_TRUE(contains(r.out, "declined")) << r.out;
    // The default log level shows the plug-in's error lines only.
    EXPECT_TRUE(contains(r.err, "E zel-android-log-ravine: {ADD, TENSOR_FP32} is not supported.")) << r.err;
    EXPECT_FALSE(contains(r.err, "D zel-android-log-ravine: ")) << r.err;

    EXPECT_FALSE(contains(run(std::string("--log off ") + kFloatAdd).err, "zel-android-log-ravine"));
}

TEST_F(Zelrun, ReportsAMismatch) {
    const std::string model = write("wrong.json", convWithExpected("20, 15, 15, 15"));
    const Outcome r = run("'" + model + "'");
    EXPECT_EQ(r.exitCode, 4) << r.out << r.err;
    EXPECT_TRUE(contains(r.out, "MISMATCH: output 0[0]: got 15, expected 20 (tolerance 1)")) << r.out;
}

TEST_F(Zelrun, TakesInputsFromRawFiles) {
    // Nine bytes of 2: real input 1 everywhere, so every output is 4 + 1.
    const std::string input = write("in.bin", std::string(9, '\x02'));
    Outcome r = run(std::string(kConv) + " --input '" + input + "'");
    EXPECT_EQ(r.exitCode, 4) << "the file's expected values no longer hold";
    EXPECT_TRUE(contains(r.out, "): 5 5 5 5\n")) << r.out;

    const std::string shortInput = write("short.bin", std::string(8, '\x02'));
    r = run(std::string(kConv) + " --input '" + shortInput + "'");
    EXPECT_EQ(r.exitCode, 1);
    EXPECT_TRUE(contains(r.err, "8 bytes, graph input 0 takes 9")) << r.err;

    r = run(std::string(kConv) + " --input '" + input + "' --input '" + input + "'");
    EXPECT_EQ(r.exitCode, 1);
    EXPECT_TRUE(contains(r.err, "2 --input file(s) given, the graph has 1 input(s)")) << r.err;
}

TEST_F(Zelrun, RepeatsAndDumpsTheRuntimeGraph) {
    const std::string dot = (mDir / "graph.dot").string();
    const Outcome r = run(std::string("--repeat 3 ") + kConv + " --dump-graph '" + dot + "'");
    EXPECT_EQ(r.exitCode, 0) << r.err;
    EXPECT_TRUE(contains(r.out, "latency over 3 runs: min ")) << r.out;
    EXPECT_TRUE(contains(r.out, " ms, median ")) << r.out;
    const std::string text = readAll(dot);
    EXPECT_EQ(text.rfind("digraph", 0), 0u) << text;
    EXPECT_TRUE(contains(text, "->")) << text;
    EXPECT_TRUE(contains(text, "Conv2d")) << "the convolution node is drawn: " << text;
}

TEST_F(Zelrun, RefusedExecutorExitsWithOne) {
    const Outcome r = run(kConv, "ZELSIM_FAULTS=prepare:1:-1");
    EXPECT_EQ(r.exitCode, 1) << r.out;
    EXPECT_TRUE(contains(r.err, "zelrun: createGraphExecutor returned status 1")) << r.err;
}

TEST_F(Zelrun, ConformanceFolderClassifiesEveryCase) {
    write("cases/a_pass.json", readAll(kConv));
    write("cases/b_declined.json", readAll(kFloatAdd));
    write("cases/c_fail.json", convWithExpected("20, 15, 15, 15"));
    write("cases/d_error.json", "not json");
    write("cases/notes.txt", "ignored: not a model");
    const std::string dir = (mDir / "cases").string();
    Outcome r = run("--log off --conformance '" + dir + "'");
    EXPECT_EQ(r.exitCode, 1);
    std::istringstream lines(r.out);
    std::string line;
    std::vector<std::string> all;
    while (std::getline(lines, line)) all.push_back(line);
    ASSERT_EQ(all.size(), 10u) << r.out;
    EXPECT_EQ(all[0], "pass     a_pass.json");
    EXPECT_EQ(all[1], "declined b_declined.json: operation 0 ADD: not supported");
    EXPECT_EQ(all[2].rfind("FAIL     c_fail.json: 1 value(s) outside tolerance, first output 0[0]: got 15", 0), 0u)
        << all[2];
    EXPECT_EQ(all[3].rfind("ERROR    d_error.json: " + dir + "/d_error.json: malformed JSON", 0), 0u) << all[3];
    EXPECT_EQ(all[4], "pass: 1");
    EXPECT_EQ(all[5], "declined: 1");
    EXPECT_EQ(all[6], "refused: 0");
    EXPECT_EQ(all[7], "FAIL: 1");
    EXPECT_EQ(all[8], "ERROR: 1");
    EXPECT_EQ(all[9], "1 passed, 2 failed");

    // Refused and declined cases are not failures.
    fs::remove(mDir / "cases/c_fail.json");
    fs::remove(mDir / "cases/d_error.json");
    r = run("--log off --conformance '" + dir + "'", "ZELSIM_FAULTS=prepare:1:-1");
    EXPECT_EQ(r.exitCode, 0) << r.out;
    EXPECT_TRUE(contains(r.out, "refused  a_pass.json: createGraphExecutor returned status 1\n")) << r.out;
    EXPECT_TRUE(contains(r.out, "\n0 passed, 0 failed\n")) << r.out;
}

}  // namespace
