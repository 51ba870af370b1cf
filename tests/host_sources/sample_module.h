// The module configured as tools/sample/wlc.yaml describes it, with a worker
// for each of its vCPUs and default receivers on both channels, and the
// sample's chip-header stage; for the suites that send the sample network's
// traffic through the real cascade.
#ifndef VANE_TESTS_HOST_SOURCES_SAMPLE_MODULE_H
#define VANE_TESTS_HOST_SOURCES_SAMPLE_MODULE_H

#include <cstdint>
#include <map>
#include <memory>
#include <vector>

#include "host/sources/chip_header.h"
#include "support/module_env.h"
#include "support/packet_builder.h"

namespace vane::test {

// Who received a packet: a vCPU 1..7, or one of these.
constexpr uint32_t kNormalDefault = 0;
constexpr uint32_t kFastDefault = 100;

class SampleModuleTest : public ModuleTest {
 protected:
  void SetUp() override;
  void TearDown() override;

  // Takes every packet the workers hold, in receiver order; the last one's
  // data is kept in last_.
  std::vector<uint32_t> Drain();

  std::unique_ptr<host::ChipHeaderStage> stage_;
  Bytes last_;

 private:
  void ApplySample();

  std::unique_ptr<Worker> ctl_;
  std::map<uint32_t, std::unique_ptr<Worker>> workers_;
};

}  // namespace vane::test

#endif  // VANE_TESTS_HOST_SOURCES_SAMPLE_MODULE_H
