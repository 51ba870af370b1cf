#include "sample_module.h"

#include <yaml-cpp/yaml.h>

#include "config.h"
#include "core_sink.h"
#include "plan.h"
#include "vane/vane.h"

namespace vane::test {

void SampleModuleTest::SetUp() {
  ModuleTest::SetUp();
  const YAML::Node cfg = YAML::LoadFile(VANE_SAMPLE_CONFIG);
  std::string err;
  stage_ = host::ChipHeaderStage::FromYaml(cfg["vaned"]["chip_header"], &err);
  ASSERT_NE(stage_, nullptr) << err;

  ctl_ = std::make_unique<Worker>(7000);
  ASSERT_EQ(ctl_->Register(kNormal, 0), 0);
  ASSERT_EQ(ctl_->Register(kFast, 0, kFast), 0);
  for (uint32_t v = 1; v <= 7; ++v) {
    workers_[v] = std::make_unique<Worker>(7000 + v);
    ASSERT_EQ(workers_[v]->Register(kNormal, v), 0);
  }
  ApplySample();
}

void SampleModuleTest::TearDown() {
  workers_.clear();
  ctl_.reset();
  ModuleTest::TearDown();
}

// The sample file itself, applied as vanectl applies it: the suites test
// the configuration that the main job runs, not a copy of it.
void SampleModuleTest::ApplySample() {
  const vanectl::Config config = vanectl::LoadConfig(VANE_SAMPLE_CONFIG);
  vanectl::test::CoreSink sink(6999);
  ASSERT_TRUE(sink.ok());
  const vane_endpoint ep = sink.Endpoint();
  vane_ctl* ctl = nullptr;
  ASSERT_EQ(vane_ctl_open(&ep, &ctl), 0);
  const int rc = vanectl::ApplyConfig(config, ctl);
  vane_ctl_close(ctl);
  ASSERT_EQ(rc, 0);
  ASSERT_EQ(sink.failures(), 0u) << "first error " << sink.first_error();
}

std::vector<uint32_t> SampleModuleTest::Drain() {
  std::vector<uint32_t> got;
  auto drain = [&](Worker& w, int channel, uint32_t who) {
    while (w.Pending(channel) != 0) {
      last_ = w.Next(channel)->data;
      got.push_back(who);
    }
  };
  drain(*ctl_, kNormal, kNormalDefault);
  drain(*ctl_, kFast, kFastDefault);
  for (auto& [v, w] : workers_) drain(*w, kNormal, v);
  return got;
}

}  // namespace vane::test
