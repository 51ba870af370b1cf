// vane_scenarios: the shared scenario suite against the real module, in the
// qemu guest. One line per test for the harness, the failures' details
// indented under their line, and a closing count:
//   VANE-PASS <test>
//   VANE-FAIL <test>: <first failure, on one line>
//   VANE-SKIP <test>: <reason>
//   <target>: N passed, M failed, K skipped
// and, for a test that took a second or more, "vane-time <test>: N ms", so
// that a boot's time can be traced to its scenarios.
//
//   vane_scenarios [--target=NAME] [GoogleTest flags, e.g. --gtest_filter=]
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "qemu/env_kernel.h"
#include "support/env.h"

namespace {

std::string OneLine(std::string s) {
  for (char& c : s) {
    if (c == '\n' || c == '\r') c = ' ';
  }
  constexpr size_t kMax = 300;
  if (s.size() > kMax) s = s.substr(0, kMax) + "...";
  return s;
}

class LinePrinter : public testing::EmptyTestEventListener {
 public:
  void OnTestEnd(const testing::TestInfo& info) override {
    const testing::TestResult& r = *info.result();
    const std::string name = std::string(info.test_suite_name()) + "." + info.name();
    if (r.Skipped()) {
      ++skipped_;
      std::string reason;
      for (int i = 0; i < r.total_part_count(); ++i) {
        if (r.GetTestPartResult(i).skipped()) reason = r.GetTestPartResult(i).message();
      }
      std::printf("VANE-SKIP %s: %s\n", name.c_str(), OneLine(reason).c_str());
    } else if (r.Failed()) {
      ++failed_;
      std::string first;
      for (int i = 0; i < r.total_part_count(); ++i) {
        const testing::TestPartResult& p = r.GetTestPartResult(i);
        if (p.failed() && first.empty()) first = p.message();
      }
      std::printf("VANE-FAIL %s: %s\n", name.c_str(), OneLine(first).c_str());
      for (int i = 0; i < r.total_part_count(); ++i) {
        const testing::TestPartResult& p = r.GetTestPartResult(i);
        if (!p.failed()) continue;
        std::printf("  %s:%d: %s\n", p.file_name() ? p.file_name() : "?", p.line_number(),
                    p.message());
      }
    } else {
      ++passed_;
      std::printf("VANE-PASS %s\n", name.c_str());
    }
    if (r.elapsed_time() >= 1000) {
      std::printf("vane-time %s: %lld ms\n", name.c_str(),
                  static_cast<long long>(r.elapsed_time()));
    }
    std::fflush(stdout);
  }

  void OnTestProgramEnd(const testing::UnitTest&) override {
    std::printf("%s: %d passed, %d failed, %d skipped\n", vane::test::Env::Get().Name().c_str(),
                passed_, failed_, skipped_);
    std::fflush(stdout);
  }

 private:
  int passed_ = 0;
  int failed_ = 0;
  int skipped_ = 0;
};

}  // namespace

int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  for (int i = 1; i < argc; ++i) {
    if (std::strncmp(argv[i], "--target=", 9) == 0) vane::test::SetKernelTarget(argv[i] + 9);
  }
  testing::TestEventListeners& listeners = testing::UnitTest::GetInstance()->listeners();
  delete listeners.Release(listeners.default_result_printer());
  listeners.Append(new LinePrinter);
  return RUN_ALL_TESTS();
}
