// Member wrappers, scoped overrides and the small services.
#include "kp/container/dependency.h"

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "kp/platform/dispatch.h"
#include "support/assertion_capture.h"

namespace kp {
namespace {

using tarvix::ServiceContainer;

class Greeter : public virtual tarvix::Service {
 public:
  [[nodiscard]] virtual std::string greet() const = 0;
};
class Named final : public Greeter {
 public:
  explicit Named(std::string name) : name_(std::move(name)) {}
  [[nodiscard]] std::string greet() const override { return name_; }

 private:
  std::string name_;
};
class Other : public virtual tarvix::Service {};
class OtherImpl final : public Other {};

// A Services of its own per test, registered with "base" for Greeter.
std::shared_ptr<Services> baseServices(std::atomic<int>* made = nullptr) {
  auto services = std::make_shared<Services>(std::make_shared<DefaultServiceContainer>());
  services->register_<Greeter>([made](ServiceContainer&) {
    if (made) ++*made;
    return std::make_shared<Named>("base");
  });
  return services;
}

void registerGreeter(DefaultServiceContainer& c, const std::string& name) {
  c.registerInstance<Greeter>(std::make_shared<Named>(name));
}

TEST(DependencyTest, LazyResolvesOnceOnFirstReadAndKeepsItsValue) {
  std::atomic<int> made{0};
  auto services = baseServices(&made);
  LazyDependency<Greeter> lazy(services);
  LazyDependency<Other> neverRead(services);  // missing, but never read: nothing reported
  EXPECT_EQ(made.load(), 0);

  std::vector<std::thread> readers;
  std::vector<std::string> seen(4);
  for (auto& s : seen) readers.emplace_back([&] { s = lazy->greet(); });
  for (auto& r : readers) r.join();
  EXPECT_EQ(made.load(), 1);
  EXPECT_EQ(seen, std::vector<std::string>(4, "base"));

  // A resolved wrapper ignores a new Services; one not yet read uses it.
  auto replacement = std::make_shared<Services>(std::make_shared<DefaultServiceContainer>());
  registerGreeter(*replacement->container(), "replacement");
  LazyDependency<Greeter> fresh(services);
  lazy.setServices(replacement);
  fresh.setServices(replacement);
  EXPECT_EQ(lazy->greet(), "base");
  EXPECT_EQ(fresh->greet(), "replacement");
}

TEST(DependencyTest, DependencyResolvesWhenMadeAndReportsAMissingService) {
  auto services = baseServices();
  Dependency<Greeter> greeter(services);
  EXPECT_EQ(greeter->greet(), "base");

  test::AssertionCapture capture;
  Dependency<Other> missing(services);
  EXPECT_EQ(missing.wrappedValue(), nullptr);
  ASSERT_EQ(capture.messages().size(), 1U);
  EXPECT_EQ(capture.messages()[0].rfind("Unable to get Other service.", 0), 0U);
}

TEST(DependencyTest, LazyTriesAgainUntilAResolutionSucceeds) {
  auto services = baseServices();
  LazyDependency<Other> lazy(services);
  OptionalLazyDependency<Other> optional(services);
  test::AssertionCapture capture;
  EXPECT_EQ(lazy.wrappedValue(), nullptr);  // not registered yet
  EXPECT_EQ(lazy.wrappedValue(), nullptr);
  EXPECT_EQ(optional.wrappedValue(), nullptr);  // quietly
  EXPECT_EQ(capture.messages().size(), 2U);     // each failed read asks, and reports, again
  auto registered = std::make_shared<OtherImpl>();
  services->container()->registerInstance<Other>(registered);
  EXPECT_EQ(lazy.wrappedValue(), registered);
  EXPECT_EQ(optional.wrappedValue(), registered);
  auto replacement = std::make_shared<Services>(std::make_shared<DefaultServiceContainer>());
  lazy.setServices(replacement);  // resolved now: kept
  EXPECT_EQ(lazy.wrappedValue(), registered);
  EXPECT_EQ(capture.messages().size(), 2U);

  // A registered service that cannot be made is reported by the optional form too.
  OptionalLazyDependency<Greeter> failing(replacement);
  replacement->container()->register_<Greeter>(
      [](ServiceContainer&) -> std::shared_ptr<Named> { throw std::runtime_error("no greeter today"); });
  EXPECT_EQ(failing.wrappedValue(), nullptr);
  ASSERT_EQ(capture.messages().size(), 3U);
  EXPECT_EQ(capture.messages()[2], "no greeter today");
}

TEST(WithDependenciesTest, OverrideHoldsForTheScopeAndNestingReplacesIt) {
  auto services = baseServices();
  auto result = withDependencies(
      [](DefaultServiceContainer& c) { registerGreeter(c, "outer"); },
      [&] {
        EXPECT_EQ(services->safeGet<Greeter>()->greet(), "outer");
        return withDependencies(
            [](DefaultServiceContainer& c) { c.registerInstance<Other>(std::make_shared<OtherImpl>()); },
            [&] { return services->safeGet<Greeter>()->greet(); });
      });
  EXPECT_EQ(result, "base");  // the inner scope does not see the outer override
  EXPECT_EQ(services->safeGet<Greeter>()->greet(), "base");
}

TEST(WithDependenciesTest, FailingUpdateSkipsOperation) {
  bool ran = false;
  EXPECT_THROW(withDependencies(
                   [](DefaultServiceContainer& c) {
                     registerGreeter(c, "a");
                     registerGreeter(c, "b");
                   },
                   [&] { ran = true; }),
               DefaultServiceContainer::Error);
  EXPECT_FALSE(ran);
  EXPECT_THROW(withDependencies([](DefaultServiceContainer&) {}, [] { throw std::runtime_error("op"); }),
               std::runtime_error);
}

TEST(WithDependenciesTest, PostedWorkInsideTheScopeSeesTheOverrideAndOutsideWorkDoesNot) {
  auto services = baseServices();
  std::promise<std::string> inside;
  std::promise<void> release;
  auto gate = release.get_future().share();
  withDependencies([](DefaultServiceContainer& c) { registerGreeter(c, "scoped"); },
                   [&] {
                     globalQueue()->async([&, gate] {
                       gate.wait();  // runs after the scope has ended
                       inside.set_value(services->safeGet<Greeter>()->greet());
                     });
                     // Concurrent work started outside the library's executors sees the base.
                     std::thread([&] { EXPECT_EQ(services->safeGet<Greeter>()->greet(), "base"); }).join();
                   });
  std::promise<std::string> outside;
  globalQueue()->async([&] { outside.set_value(services->safeGet<Greeter>()->greet()); });
  release.set_value();
  EXPECT_EQ(inside.get_future().get(), "scoped");
  EXPECT_EQ(outside.get_future().get(), "base");
}

TEST(WithDependenciesTest, AsyncFormBindsTheOverrideForContinuedWork) {
  auto services = baseServices();
  auto queue = SerialQueue::make("kp.test.dependencies");
  std::promise<std::pair<std::string, std::string>> done;
  withDependencies<std::string>(
      [queue](DefaultServiceContainer& c, std::function<void(std::exception_ptr)> updated) {
        queue->async([&c, updated] {
          registerGreeter(c, "async");
          updated(nullptr);
        });
      },
      [queue, services](std::function<void(AsyncOutcome<std::string>)> finish) {
        queue->async(
            [services, finish] { finish(AsyncOutcome<std::string>::success(services->safeGet<Greeter>()->greet())); });
      },
      [&](AsyncOutcome<std::string> outcome) {
        done.set_value({outcome.value(), services->safeGet<Greeter>()->greet()});
      });
  EXPECT_EQ(done.get_future().get(), (std::pair<std::string, std::string>{"async", "base"}));

  std::promise<std::exception_ptr> failed;
  withDependencies<void>([](DefaultServiceContainer&, auto) { throw std::runtime_error("update"); },
                         [](auto) { ADD_FAILURE() << "operation ran"; },
                         [&](AsyncOutcome<void> outcome) { failed.set_value(outcome.error()); });
  EXPECT_THROW(std::rethrow_exception(failed.get_future().get()), std::runtime_error);
}

}  // namespace
}  // namespace kp
