#include <gtest/gtest.h>

#include <filesystem>
#include <functional>

#include "tests/support/TempFolder.h"
#include "tools/Failure.h"
#include "tools/commands/run/RunJobs.h"

namespace {

namespace fs = std::filesystem;
using mlnn::RunJobs;
using mlnn::runJobs;
using mlnn::test::TempFolder;

std::string refusalOf(const std::function<void()>& action) {
  try {
    action();
  } catch (const mlnn::Failure& failure) {
    return failure.what();
  }
  return "";
}

TEST(RunJobs, giveTheOnlyResultItsName) {
  const RunJobs jobs = runJobs({{"in/a.npy", "a.npy"}}, "out.npy", "trace");
  EXPECT_FALSE(jobs.intoFolder);
  ASSERT_EQ(jobs.jobs.size(), 1u);
  EXPECT_EQ(jobs.jobs[0].frames, "in/a.npy");
  EXPECT_EQ(jobs.jobs[0].out, "out.npy");
  EXPECT_EQ(jobs.jobs[0].trace, "trace");
}

TEST(RunJobs, putSeveralResultsIntoAFolder) {
  const RunJobs jobs = runJobs({{"in/a.npy", "a.npy"}, {"b.npy", "words/b.npy"}}, "out", "trace");
  EXPECT_TRUE(jobs.intoFolder);
  ASSERT_EQ(jobs.jobs.size(), 2u);
  EXPECT_EQ(jobs.jobs[0].out, "out/a.npy");
  EXPECT_EQ(jobs.jobs[1].out, "out/words/b.npy");
  EXPECT_EQ(jobs.jobs[0].trace, "trace/a");
  EXPECT_EQ(jobs.jobs[1].trace, "trace/words/b");
  EXPECT_TRUE(runJobs({{"words/b.npy", "words/b.npy"}}, "out", "").intoFolder);
  EXPECT_TRUE(runJobs({{"a.npy", "a.npy"}}, "out/", "").intoFolder);
  EXPECT_FALSE(runJobs({{"a.npy", "a.npy"}, {"b.npy", "b.npy"}}, "", "").intoFolder);
}

TEST(RunJobs, refuseResultsWithoutANameOfTheirOwn) {
  EXPECT_EQ(refusalOf([] {
              runJobs({{"a/x", "x"}, {"b/x", "x"}}, "out", "");
            }),
            "two results would be called 'x' in the folder 'out'");
  EXPECT_EQ(refusalOf([] {
              runJobs({{"-", ""}, {"b/x", "x"}}, "out", "");
            }),
            "the result of standard input has no name in the folder 'out'");
  EXPECT_EQ(refusalOf([] {
              runJobs({{"x.npy", "x.npy"}, {"x.txt", "x.txt"}}, "", "trace");
            }),
            "two traces would be called 'x' in the folder 'trace'");
}

TEST(RunJobs, replaceNoInput) {
  const TempFolder folder;
  const std::string model = folder.write("model", "");
  const std::string frames = folder.write("frames.npy", "");
  EXPECT_EQ(refusalOf([&] {
              mlnn::refuseLossOfInputs(model, {{frames, folder.path("out"), ""}});
            }),
            "");
  EXPECT_NE(refusalOf([&] { mlnn::refuseLossOfInputs(model, {{frames, model, ""}}); }), "");
  EXPECT_NE(refusalOf([&] { mlnn::refuseLossOfInputs(model, {{frames, frames, ""}}); }), "");
}

TEST(RunJobs, leaveOutWhatIsDone) {
  const TempFolder folder;
  const auto change = [](const std::string& name, int seconds) {
    fs::last_write_time(name, fs::file_time_type() + std::chrono::seconds(seconds));
    return name;
  };
  const std::string model = change(folder.write("model", ""), 10);
  const std::string frames = change(folder.write("frames", ""), 20);
  const auto left = [&](const std::string& out) {
    std::vector<mlnn::RunJob> jobs{{frames, out, ""}};
    mlnn::leaveOutDone(model, jobs);
    return jobs.size();
  };
  EXPECT_EQ(left(change(folder.write("newer", ""), 30)), 0u);
  EXPECT_EQ(left(change(folder.write("as-old", ""), 20)), 1u);
  EXPECT_EQ(left(change(folder.write("older", ""), 15)), 1u);
  EXPECT_EQ(left(folder.path("missing")), 1u);
  change(model, 40);
  EXPECT_EQ(left(folder.path("newer")), 1u);
  EXPECT_EQ(left(folder.path()), 1u);  // a folder
}

TEST(RunJobs, makeTheFoldersOfTheirResults) {
  const TempFolder folder;
  const std::string out = folder.path("out");
  mlnn::makeFolders(out, runJobs({{"a", "a"}, {"b", "words/b"}}, out, ""));
  EXPECT_TRUE(fs::is_directory(out + "/words"));
  mlnn::makeFolders(out, runJobs({{"a", "a"}, {"b", "words/b"}}, out, ""));  // they may be there
  const std::string file = folder.write("file", "");
  EXPECT_EQ(refusalOf([&] {
              mlnn::makeFolders(file + "/x", runJobs({{"a", "a"}, {"b", "b"}}, file + "/x", ""));
            }),
            "cannot make the folder '" + file + "/x': Not a directory");
}

}  // namespace
