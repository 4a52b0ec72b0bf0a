#include "vorlund/results/execution.h"

#include <execinfo.h>

#include <algorithm>
#include <cstdlib>
#include <exception>
#include <iterator>
#include <mutex>

#include "vorlund/catalogue/bundle_registration.h"
#include "vorlund/catalogue/test_bundle.h"
#include "vorlund/catalogue/test_case_registry.h"
#include "vorlund/conversion/object_data.h"
#include "vorlund/foundation/notification_center.h"
#include "vorlund/foundation/process.h"
#include "vorlund/logging/log.h"
#include "vorlund/results/issue_reporting.h"
#include "vorlund/results/results.h"

namespace vl {
namespace {

constexpr const char* kExecutionErrorDomain = "com.brindle.Vorlund";

// The call stack of the calling thread, one frame per element, for the wrong-type message.
Array currentCallStack() {
  void* frames[64];
  int count = backtrace(frames, static_cast<int>(std::size(frames)));
  Array stack;
  char** symbols = backtrace_symbols(frames, count);
  if (!symbols) return stack;
  for (int i = 0; i < count; ++i) stack.push_back(Value(std::string(symbols[i])));
  std::free(symbols);
  return stack;
}

// The method name of a selector: ":" appended unless it already ends with one, so that "runTest"
// and "runTest:" name the same one-argument method.
std::string testMethodName(std::string_view selector) {
  std::string name(selector);
  if (name.empty() || name.back() != ':') name.push_back(':');
  return name;
}

// A field of a test case as "%@" prints it: its value, or none ("(null)").
Value printable(const std::optional<std::string>& field) { return field ? Value(*field) : Value(); }

Value nameOf(const std::shared_ptr<VLTestCaseObject>& testCase) {
  return testCase ? printable(testCase->name()) : Value();
}

// Runs the test method and turns every way it can go wrong into a failed result.
std::shared_ptr<VLTestCaseResult> callTestMethod(const TestMethod& method,
                                                 VLTestCaseClass& implementer,
                                                 const std::shared_ptr<VLTestCaseObject>& testCase,
                                                 const std::string& methodName) {
  std::string reason;
  try {
    std::shared_ptr<VLTestCaseResult> result = method(implementer, testCase);
    if (result) return result;
    reason = format("%@ returned no result", methodName);
  } catch (const VLException& e) {
    reason = format("%@ raised %@: %@", methodName, e.name(), e.reason());
  } catch (const std::exception& e) {
    reason = format("%@ threw an exception: %@", methodName, std::string(e.what()));
  } catch (...) {
    reason = format("%@ threw an unknown exception", methodName);
  }
  VLLog(VLLogLevelError, "Framework", "Test case %@ failed: %@", nameOf(testCase), reason);
  auto failed = VLTestCaseResult::quickFailWithTestCaseObject(testCase, reason);
  return failed ? failed : VLTestCaseResult::asNoOp();
}

std::shared_ptr<VLTestCaseResult> executeInHostProcess(
    const std::shared_ptr<VLTestCaseObject>& testCase) {
  if (!testCase) {
    VLLog(VLLogLevelError, nullptr, "Unable to perform a nil test case");
    return VLTestCaseResult::asNoOp();
  }
  std::shared_ptr<VLTestCaseClass> implementer = VLGetClassForTestCase(testCase);
  if (!implementer) {
    VLLog(VLLogLevelError, nullptr, "Unable to execute %@, no object found", nameOf(testCase));
    VLAddStatisticToResults(
        format("%@ requested but not implemented in any bundles", nameOf(testCase)));
    return VLTestCaseResult::asNoOp();
  }

  testCase->setInstanceId(Uuid::randomString());
  VLLog(VLLogLevelInfo, "Framework", "Executing %@ with %@", nameOf(testCase), implementer);

  const std::string methodName = testMethodName(testCase->selector().value_or(""));
  TestMethod method = findTestMethod(*implementer, methodName);
  if (method) return callTestMethod(method, *implementer, testCase, methodName);

  VLAddStatisticToResults(format("Action Required - %@ declared but didnt implement %@",
                                 implementer->friendlyName(), printable(testCase->selector())));
  VLLog(VLLogLevelError, nullptr,
        "%@ declared support for %@, but it does not have an implementation!!!", implementer,
        testCase);
  return VLTestCaseResult::asNoOp();
}

// The installed stress service client; read and written under its mutex because a call may run
// on any thread.
std::mutex& serviceExecutorMutex() {
  static std::mutex mutex;
  return mutex;
}
ServiceExecutor& installedServiceExecutor() {
  static ServiceExecutor* executor = new ServiceExecutor();  // outlives static destructors
  return *executor;
}

std::shared_ptr<VLTestCaseResult> executeInService(
    const std::shared_ptr<VLTestCaseObject>& testCase, Error* error) {
  ServiceExecutor executor;
  {
    std::lock_guard lock(serviceExecutorMutex());
    executor = installedServiceExecutor();
  }
  if (!executor) {
    Error failure = Error::withDescription(
        kExecutionErrorDomain, 1, "the stress service cannot be reached from this program");
    VLLog(VLLogLevelError, "Framework", "Unable to execute %@ in the stress service: %@",
          nameOf(testCase), failure.localizedDescription());
    setError(error, std::move(failure));
    return nullptr;
  }
  // The client logs its own failures.
  Error failure;
  std::shared_ptr<VLTestCaseResult> result = executor(testCase, &failure);
  if (!result) setError(error, std::move(failure));
  return result;
}

void deliverToWaitingObject(const std::shared_ptr<VLPendingReplyOwner>& object,
                            const Dictionary& message) {
  object->updateResponses([&](Array& responses) { responses.push_back(Value(message)); });
  std::shared_ptr<Condition> condition = object->lock();
  if (!condition) return;
  // Taking the lock before broadcasting closes the window between a waiter's check of its
  // responses and its wait.
  std::lock_guard lock(*condition);
  condition->broadcast();
}

}  // namespace

void setServiceExecutor(ServiceExecutor executor) {
  std::lock_guard lock(serviceExecutorMutex());
  installedServiceExecutor() = std::move(executor);
}

bool isTestHostProcess() {
  const std::string name = process::name();
  return std::any_of(std::begin(kVLHostProcessNames), std::end(kVLHostProcessNames),
                     [&](const char* host) { return name == host; });
}

}  // namespace vl

std::shared_ptr<VLTestCaseResult> vl::executeTestCaseInProcess(
    const std::shared_ptr<VLTestCaseObject>& testCase) {
  try {
    return executeInHostProcess(testCase);
  } catch (const std::exception& e) {
    VLLog(VLLogLevelError, "Framework", "Unable to execute %@: %@", nameOf(testCase),
          std::string(e.what()));
    return VLTestCaseResult::asNoOp();
  }
}

std::shared_ptr<VLTestCaseResult> VLExecuteTestCase(
    const std::shared_ptr<VLTestCaseObject>& testCase, vl::Error* error) {
  if (vl::isTestHostProcess()) return vl::executeTestCaseInProcess(testCase);
  try {
    return vl::executeInService(testCase, error);
  } catch (const std::exception& e) {
    // Recording an issue or logging can fail (a broken results store); the caller still gets a
    // result.
    VLLog(VLLogLevelError, "Framework", "Unable to execute %@: %@", vl::nameOf(testCase),
          std::string(e.what()));
    return VLTestCaseResult::asNoOp();
  }
}

std::shared_ptr<VLTestCaseResult> VLExecuteTestCase(const vl::Value& testCase, vl::Error* error) {
  if (testCase.isNone()) return VLExecuteTestCase(std::shared_ptr<VLTestCaseObject>(), error);
  auto object = testCase.record<VLTestCaseObject>();
  if (object) return VLExecuteTestCase(object, error);
  VLLog(VLLogLevelError, nullptr,
        "Recevied a test case object that was of the wrong type (%@)...%@", testCase.className(),
        vl::currentCallStack());
  if (vl::isTestHostProcess()) return VLTestCaseResult::asNoOp();
  vl::setError(error, vl::Error::withDescription(vl::kExecutionErrorDomain, 1,
                                                 "the test case is not a VLTestCaseObject"));
  return nullptr;
}

void VLFindObjectForMessage(const vl::Dictionary& message) {
  try {
    const vl::Value& uuid = message.get(kVLMessageKeyUUID);
    for (const auto& object : vl::loadedRemoteExecutionObjects()) {
      if (!object->pendingMessageIDs().contains(uuid)) continue;
      vl::deliverToWaitingObject(object, message);
      return;
    }

    const std::string* type = message.get(kVLMessageKeyType).asString();
    if (type && *type == kVLMessageTypeManagerCommandResult) {
      VLLog(VLLogLevelInfo, "VLCore", "Got manager command result! %@", message);
      std::string name =
          std::string(kVLManagerCommandResultNotificationPrefix) + "." + vl::format("%@", uuid);
      vl::NotificationCenter::defaultCenter().post(name, message);
      VLLog(VLLogLevelInfo, "VLCore", "Sending Manager Command with Notification Name! %@", name);
      return;
    }
    if (type && *type == kVLMessageTypeTestCaseResult) {
      const vl::Data* data = message.get(kVLMessageKeyResult).asData();
      auto result = VLConvertDataToObject(data).record<VLTestCaseResult>();
      if (result) VLResults::currentResults()->addTestCaseResult(result, nullptr, false);
      return;
    }
    VLLog(VLLogLevelError, "Framework",
          "No object was waiting for %@, must've timed out.  Message is being dropped", uuid);
  } catch (const std::exception& e) {
    VLLog(VLLogLevelError, "Framework", "Unable to route message %@: %@", message,
          std::string(e.what()));
  }
}
