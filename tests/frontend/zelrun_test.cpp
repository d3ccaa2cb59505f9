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
                                  "--conformance d m.json", "m.json --plugin", "--conformance d --output o.bin",
                                  "--json --expected e.bin m.json"}) {
        const Outcome r = run(arguments);
        EXPECT_EQ(r.exitCode, 2) << arguments;
        EXPECT_TRUE(contains(r.err, "usage: zelrun")) << arguments << ": " << r.err;
    }
}

TEST_F(Zelrun, UnreadableFilesAreNamedWithTheReason) {
    Outcome r = run("/nonexistent/m.json");
    EXPECT_EQ(r.exitCode, 1);
    EXPECT_TRUE(contains(r.err, "zelrun: /nonexistent/m.json: cannot open file: No such file or directory")) << r.err;

    r = run("'" + mDir.string() + "'");
    EXPECT_EQ(r.exitCode, 1);
    EXPECT_TRUE(contains(r.err, "zelrun: " + mDir.string() + ": cannot open file: Is a directory")) << r.err;

    r = run(std::string(kConv) + " --input '" + mDir.string() + "'");
    EXPECT_EQ(r.exitCode, 1);
    EXPECT_TRUE(contains(r.err, "zelrun: " + mDir.string() + ": cannot open file: Is a directory")) << r.err;

    r = run(std::string(kConv) + " --output /nonexistent/out.bin");
    EXPECT_EQ(r.exitCode, 1);
    EXPECT_TRUE(contains(r.err, "zelrun: /nonexistent/out.bin: cannot write file: No such file or directory")) << r.err;

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
    EXPECT_TRUE(contains(r.out, "  0    3     CONV_2D                        supported\n")) << r.out;
    EXPECT_TRUE(contains(r.out, "output 0 (operand 6, TENSOR_QUANT8 [1,2,2,1]): 15 15 15 15")) << r.out;
    EXPECT_TRUE(contains(r.out, "outputs match the expected values")) << r.out;
}

TEST_F(Zelrun, DeclinesAnUnsupportedModel) {
    const Outcome r = run(kFloatAdd);
    EXPECT_EQ(r.exitCode, 3) << r.out << r.err;
    EXPECT_TRUE(contains(r.out, "  0    0     ADD                            not supported\n")) << r.out;
    EXPECT_TRUE(contains(r.out, "\ndeclined: not every operation is supported\n")) << r.out;
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

TEST_F(Zelrun, RunsOnRawInputsAndWritesRawOutputs) {
    // Nine bytes of 2: real input 1 everywhere, so every output is 4 + 1.
    const std::string input = write("in.bin", std::string(9, '\x02'));
    const std::string output = (mDir / "out.bin").string();
    Outcome r = run(std::string(kConv) + " --input '" + input + "' --output '" + output + "'");
    EXPECT_EQ(r.exitCode, 0) << "the model's expected values belong to its own input data: " << r.out;
    EXPECT_TRUE(contains(r.out, "): 5 5 5 5\n")) << r.out;
    EXPECT_TRUE(contains(r.out, "outputs not compared")) << r.out;
    EXPECT_EQ(readAll(output), std::string(4, '\x05'));

    r = run(std::string(kConv) + " --input '" + input + "' --expected '" + write("five.bin", "\x05\x05\x06\x04") + "'");
    EXPECT_EQ(r.exitCode, 0) << "within the model's tolerance of 1: " << r.out;
    EXPECT_TRUE(contains(r.out, "outputs match the expected values (tolerance 1, largest difference 1)")) << r.out;

    r = run(std::string(kConv) + " --input '" + input + "' --expected '" + write("far.bin", "\x05\x05\x05\x09") + "'");
    EXPECT_EQ(r.exitCode, 4) << r.out;
    EXPECT_TRUE(contains(r.out, "MISMATCH: output 0[3]: got 5, expected 9 (tolerance 1)")) << r.out;

    r = run(std::string(kConv) + " --input '" + write("short.bin", std::string(8, '\x02')) + "'");
    EXPECT_EQ(r.exitCode, 1);
    EXPECT_TRUE(contains(r.err, "short.bin: 8 bytes, graph input 0 takes 9")) << r.err;

    r = run(std::string(kConv) + " --expected '" + input + "'");
    EXPECT_EQ(r.exitCode, 1);
    EXPECT_TRUE(contains(r.err, "in.bin: 9 bytes, graph output 0 takes 4")) << r.err;

    r = run(std::string(kConv) + " --input '" + input + "' --input '" + input + "'");
    EXPECT_EQ(r.exitCode, 1);
    EXPECT_TRUE(contains(r.err, "2 --input file(s) given, the graph has 1 input(s)")) << r.err;
    r = run(std::string(kConv) + " --output a.bin --output b.bin");
    EXPECT_EQ(r.exitCode, 1);
    EXPECT_TRUE(contains(r.err, "2 --output file(s) given, the graph has 1 output(s)")) << r.err;

    // Without input data in the model nor --input the graph runs on zeros:
    // the bias alone.
    std::string text = readAll(kConv);
    const std::string data = "\"inputData\": [[8, 8, 8, 8, 4, 8, 8, 8, 8]],";
    ASSERT_NE(text.find(data), std::string::npos);
    text.erase(text.find(data), data.size());
    r = run("'" + write("zeros.json", text) + "'");
    EXPECT_EQ(r.exitCode, 4) << r.out;
    EXPECT_TRUE(contains(r.out, "no input data in the model and no --input: the run uses zeros\n")) << r.out;
    EXPECT_TRUE(contains(r.out, "): 1 1 1 1\n")) << r.out;
}

// A convolution the accelerator runs, then a logistic it declines, then a
// RELU it runs again: two accelerator runs around a CPU run.
TEST_F(Zelrun, ShowsThePartitionOfADeclinedGraph) {
    const std::string model = write("mixed.json", R"({
      "operands": [
        {"type": 5, "dims": [1, 3, 3, 1], "scale": 0.5, "zeroPoint": 0, "lifetime": "input"},
        {"type": 5, "dims": [1, 2, 2, 1], "scale": 0.5, "zeroPoint": 0, "lifetime": "constant", "data": [2, 2, 2, 2]},
        {"type": 4, "dims": [1], "scale": 0.25, "zeroPoint": 0, "lifetime": "constant", "data": [4]},
        {"type": 1, "dims": [], "scale": 0, "zeroPoint": 0, "lifetime": "constant", "data": [2]},
        {"type": 1, "dims": [], "scale": 0, "zeroPoint": 0, "lifetime": "constant", "data": [1]},
        {"type": 1, "dims": [], "scale": 0, "zeroPoint": 0, "lifetime": "constant", "data": [0]},
        {"type": 5, "dims": [1, 2, 2, 1], "scale": 1.0, "zeroPoint": 0, "lifetime": "internal"},
        {"type": 5, "dims": [1, 2, 2, 1], "scale": 0.00390625, "zeroPoint": 0, "lifetime": "internal"},
        {"type": 5, "dims": [1, 2, 2, 1], "scale": 0.00390625, "zeroPoint": 0, "lifetime": "output"}],
      "operations": [
        {"type": 3, "inputs": [0, 1, 2, 3, 4, 4, 5], "outputs": [6]},
        {"type": 14, "inputs": [6], "outputs": [7]},
        {"type": 19, "inputs": [7], "outputs": [8]}],
      "inputs": [0], "outputs": [8]})");
    Outcome r = run("--log off '" + model + "'");
    EXPECT_EQ(r.exitCode, 3) << r.out << r.err;
    EXPECT_TRUE(contains(r.out, "  1    14    LOGISTIC                       not supported\n")) << r.out;
    EXPECT_TRUE(contains(r.out, "partition: 3 segment(s)")) << r.out;
    EXPECT_TRUE(contains(r.out,
                         "  accelerator operation 0        1 operation(s), 16 MACs\n"
                         "  cpu         operation 1        1 operation(s), 0 MACs\n"
                         "  accelerator operation 2        1 operation(s), 0 MACs\n"))
        << r.out;
    EXPECT_TRUE(contains(r.out, "on the accelerator: 2 of 3 operations (66.7%), 16 of 16 MACs (100.0%)\n")) << r.out;

    r = run("--log off --json '" + model + "'");
    EXPECT_EQ(r.exitCode, 3) << r.out << r.err;
    EXPECT_EQ(r.out.front(), '{') << "one JSON object and nothing else: " << r.out;
    EXPECT_TRUE(contains(r.out, R"("supported": false)")) << r.out;
    EXPECT_TRUE(contains(r.out, R"("name": "LOGISTIC",)"
                                "\n"
                                R"(      "level": 1,)"))
        << r.out;
    EXPECT_TRUE(contains(r.out, R"("target": "cpu",)"
                                "\n"
                                R"(        "first": 1,)"))
        << r.out;
    EXPECT_TRUE(contains(r.out, R"("macs": {)"
                                "\n"
                                R"(      "accelerator": 16,)"
                                "\n"
                                R"(      "total": 16)"))
        << r.out;
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

TEST_F(Zelrun, ExplainsStatusSevenOnce) {
    // The first version probe, made by createGraphExecutor, answers another version.
    Outcome r = run(kConv, "ZELSIM_FAULTS=version:1:0x20101");
    EXPECT_EQ(r.exitCode, 1) << r.out;
    EXPECT_TRUE(contains(r.err,
                         "zelrun: createGraphExecutor returned status 7\n"
                         "zelrun: status 7: the accelerator is unavailable: the runtime library is missing or "
                         "answers another version\n"))
        << r.err;

    write("cases/a.json", readAll(kConv));
    write("cases/b.json", readAll(kConv));
    r = run("--log off --conformance '" + (mDir / "cases").string() + "'",
            "ZELSIM_FAULTS=version:1:0x20101,version:2:0x20101");
    EXPECT_EQ(r.exitCode, 1) << r.out;
    EXPECT_TRUE(contains(r.out, "ERROR    a.json: createGraphExecutor returned status 7\n")) << r.out;
    EXPECT_TRUE(contains(r.out, "ERROR    b.json: createGraphExecutor returned status 7\n")) << r.out;
    const size_t first = r.err.find("status 7: the accelerator is unavailable");
    EXPECT_NE(first, std::string::npos) << r.err;
    EXPECT_EQ(r.err.find("status 7: the accelerator", first + 1), std::string::npos) << "once: " << r.err;
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
    EXPECT_EQ(all[1], "declined b_declined.json: operation 0 ADD (code 0): not supported");
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

    // A folder without a model is an error, not an empty success.
    fs::create_directories(mDir / "empty");
    write("empty/notes.txt", "no model here");
    r = run("--conformance '" + (mDir / "empty").string() + "'");
    EXPECT_EQ(r.exitCode, 1) << r.out;
    EXPECT_TRUE(contains(r.err, "empty: no model file (*.json) in the folder\n")) << r.err;
    EXPECT_EQ(r.out, "");
}

}  // namespace
