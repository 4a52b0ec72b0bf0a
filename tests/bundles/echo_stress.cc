// A test bundle built twice (EchoA and EchoB) from this one source: two bundles whose principal
// classes have the same C++ type name and a test method of the same name, as two copies of a
// bundle template would. The method writes the bundle's voice into the test case's options, so a
// test sees whose code ran.
#include "vorlund/catalogue/bundle_registration.h"

#ifndef VORLUND_ECHO_VOICE
#error "VORLUND_ECHO_VOICE names the bundle"
#endif

namespace echo_impl {

class Stress : public VLTestCaseClass {
 public:
  std::shared_ptr<VLTestCaseResult> echo(std::shared_ptr<VLTestCaseObject> testCase) {
    vl::Dictionary options = testCase->options().value_or(vl::Dictionary());
    options.set("Voice", VORLUND_ECHO_VOICE);
    testCase->setOptions(std::move(options));
    return nullptr;
  }
};

}  // namespace echo_impl

// Registered under the alias, which is the "Principal Class" of both Info.plists.
using EchoStress = echo_impl::Stress;

VORLUND_BUNDLE_CLASS(EchoStress);
VORLUND_TEST_METHOD(EchoStress, echo);
