// The container's tables, errors, descriptions, merging, concurrency and re-entry.
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

#include "kp/container/default_service_container.h"
#include "kp/container/services.h"
#include "support/assertion_capture.h"

namespace kp {
namespace {

using tarvix::ServiceContainer;

namespace model {
struct Item {};
}  // namespace model

class A : public virtual tarvix::Service {};
class B : public virtual tarvix::Service {};
class C : public virtual tarvix::Service {};
template <class T>
class Box : public virtual tarvix::Service {};
class AB final : public A, public B {};
class OnlyA final : public A {};
class OnlyC final : public C {};

using Error = DefaultServiceContainer::Error;

template <class E = Error, class F>
E errorOf(F&& f) {
  try {
    f();
  } catch (const E& e) {
    return e;
  }
  ADD_FAILURE() << "no container error";
  return E("", {}, {});
}

TEST(ContainerTest, ServiceTypesOfOneInstanceTypeShareFactoryAndInstance) {
  DefaultServiceContainer container;
  int made = 0;
  container.register_<A, B>([&](ServiceContainer&) {
    ++made;
    return std::make_shared<AB>();
  });
  auto a = container.safeGet<A>();
  auto b = container.safeGet<B>();
  EXPECT_EQ(dynamic_cast<AB*>(a.get()), dynamic_cast<AB*>(b.get()));
  EXPECT_EQ(container.safeGet<A>(), a);
  EXPECT_EQ(made, 1);

  // A second registration of AB replaces its factory but the instance stays in use.
  container.register_<C>([&](ServiceContainer&) {
    ++made;
    return std::make_shared<AB>();
  });
  EXPECT_EQ(container.safeGet<A>(), a);
  EXPECT_EQ(made, 1);
}

TEST(ContainerTest, DuplicateRegistrationKeepsEarlierTypesAndStoresNoFactory) {
  DefaultServiceContainer container;
  container.register_<B>([](ServiceContainer&) { return std::make_shared<AB>(); });
  auto error = errorOf([&] { container.register_<A, B>([](ServiceContainer&) { return std::make_shared<OnlyA>(); }); });
  EXPECT_EQ(error.description(),
            "The service type B already has instance type OnlyA registered.\n"
            "Possible causes:\n - The same instance type is registered for the same service type at multiple "
            "locations\nSuggested fixes:\n - Remove one of the registration calls");
  // A stays registered to OnlyA, which has no factory: resolving it is a cast failure.
  EXPECT_EQ(errorOf([&] { (void)container.safeGet<A>(); }).message(),
            "Failed to cast instance of OnlyA to service type A");
}

TEST(ContainerTest, ErrorTextsUseUnqualifiedNames) {
  DefaultServiceContainer container;
  auto missing = errorOf([&] { (void)container.safeGet<Box<model::Item>>(); });
  EXPECT_EQ(missing.description(),
            "Unable to get Box<Item> service.\nPossible causes:\n - No service is registered for type Box<Item>\n"
            "Suggested fixes:\n - Register a service for type Box<Item>");

  container.register_<B>([](ServiceContainer&) { return std::make_shared<OnlyA>(); });
  EXPECT_EQ(errorOf([&] { (void)container.safeGet<B>(); }).possibleCauses(),
            std::vector<std::string>{"The registered service OnlyA does not implement type B"});
  EXPECT_EQ(container.debugDescription(),
            "Registered services:\n - B with instance type [OnlyA]\nThe following instances have been initialized:\n");
}

TEST(ContainerTest, ThrowingFactoryCachesNothingAndRunsAgain) {
  DefaultServiceContainer container;
  int calls = 0;
  container.register_<A>([&](ServiceContainer&) -> std::shared_ptr<OnlyA> {
    if (++calls == 1) throw std::runtime_error("offline");
    return std::make_shared<OnlyA>();
  });
  EXPECT_THROW((void)container.safeGet<A>(), std::runtime_error);
  EXPECT_NE(container.safeGet<A>(), nullptr);
  EXPECT_EQ(calls, 2);
}

TEST(ContainerTest, MergeTakesTheOthersRegistrationsAndKeepsItsInstances) {
  DefaultServiceContainer first;
  DefaultServiceContainer second;
  auto firstInstance = std::make_shared<OnlyA>();
  auto secondInstance = std::make_shared<OnlyA>();
  first.registerInstance<A>(firstInstance);
  first.registerInstance<C>(std::make_shared<AB>());
  second.registerInstance<A>(secondInstance);
  EXPECT_EQ(first.safeGet<A>(), firstInstance);

  auto merged = first.merge(second);
  EXPECT_EQ(merged->description(), "Services instance with 2 types registered.");
  // The factory and registration of `second` win; the instance it made came from `first`.
  EXPECT_EQ(merged->safeGet<A>(), firstInstance);
  EXPECT_EQ(second.safeGet<A>(), secondInstance);
}

TEST(ContainerTest, ManyServiceTypesEachResolveToTheirOwnInstance) {
  DefaultServiceContainer container;
  [&]<int... I>(std::integer_sequence<int, I...>) {
    (container.registerInstance<Box<std::integral_constant<int, I>>>(
         std::make_shared<Box<std::integral_constant<int, I>>>()),
     ...);
    for (int round = 0; round < 2; ++round) {
      std::vector<void*> seen{container.safeGet<Box<std::integral_constant<int, I>>>().get()...};
      EXPECT_EQ(std::set<void*>(seen.begin(), seen.end()).size(), sizeof...(I));
    }
  }
  (std::make_integer_sequence<int, 40>{});
}

TEST(ContainerTest, ConcurrentFirstResolutionRunsFactoryOnce) {
  DefaultServiceContainer container;
  std::atomic<int> made{0};
  container.register_<A>([&](ServiceContainer&) {
    ++made;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
    return std::make_shared<OnlyA>();
  });
  std::vector<std::shared_ptr<A>> seen(4);
  std::vector<std::thread> threads;
  for (auto& slot : seen) threads.emplace_back([&] { slot = container.safeGet<A>(); });
  for (auto& t : threads) t.join();
  EXPECT_EQ(made.load(), 1);
  for (const auto& s : seen) EXPECT_EQ(s, seen.front());
}

TEST(ContainerTest, FactoryUsingItsOwnContainerFailsInsteadOfDeadlocking) {
  DefaultServiceContainer container;
  container.registerInstance<B>(std::make_shared<AB>());
  container.register_<A>([](ServiceContainer& c) {
    (void)c.safeGet<B>();
    return std::make_shared<OnlyA>();
  });
  container.register_<C>([](ServiceContainer& c) {
    c.registerInstance<Box<int>>(std::make_shared<Box<int>>());
    return std::make_shared<OnlyC>();
  });
  auto resolving = errorOf<DefaultServiceContainer::ReentrantUseError>([&] { (void)container.safeGet<A>(); });
  EXPECT_EQ(resolving.message(),
            "The factory of OnlyA (made for A) tried to resolve B through the container that is running it; the "
            "container is locked until the factory returns.");
  EXPECT_EQ(resolving.suggestedFixes().size(), 3U);
  EXPECT_NE(errorOf([&] { (void)container.safeGet<C>(); }).message().find("tried to register Box<int> for Box<int>"),
            std::string::npos);
  // The container stays usable, from this thread and others.
  EXPECT_NE(container.safeGet<B>(), nullptr);
  std::thread([&] { EXPECT_NE(container.safeGet<B>(), nullptr); }).join();
}

TEST(ServicesTest, OverrideShadowsBaseAndFallsThrough) {
  Services services(std::make_shared<DefaultServiceContainer>());
  auto base = std::make_shared<AB>();
  services.register_<A, B>([base](ServiceContainer&) { return base; });
  auto overrides = std::make_shared<DefaultServiceContainer>();
  auto local = std::make_shared<OnlyA>();
  overrides->registerInstance<A>(local);
  overrides->registerInstance<C>(std::make_shared<Box<int>>());  // does not implement C
  Services::localContainer().withValue(overrides, [&] {
    EXPECT_EQ(services.safeGet<A>(), local);
    EXPECT_EQ(dynamic_cast<AB*>(services.safeGet<B>().get()), base.get());
    // Neither answers C: the base container's error is thrown, not the override's cast error.
    EXPECT_EQ(errorOf([&] { (void)services.safeGet<C>(); }).message(), "Unable to get C service.");
    // Registrations through Services reach the base container only.
    services.registerInstance<Box<int>>(std::make_shared<Box<int>>());
    EXPECT_FALSE(overrides->resolveIfRegistered(tarvix::ServiceType::of<Box<int>>()));
    EXPECT_EQ(services.description(), "Services instance with 4 types registered.");
  });
  EXPECT_EQ(dynamic_cast<AB*>(services.safeGet<A>().get()), base.get());
}

TEST(ServicesTest, DefaultIsOneInstanceAndGetReportsFailures) {
  EXPECT_EQ(Services::default_(), Services::default_());
  test::AssertionCapture capture;
  EXPECT_EQ(Services::default_()->get<Box<double>>(), nullptr);
  ASSERT_EQ(capture.messages().size(), 1U);
  EXPECT_EQ(capture.messages()[0].rfind("Unable to get Box<double> service.\nPossible causes:", 0), 0U);
}

}  // namespace
}  // namespace kp
