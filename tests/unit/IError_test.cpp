#include "base/IError.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>

#include "tests/support/Capture.h"

namespace {

using Tarvik::Interfaces::IError;

class Owner : public IError {
 public:
  Owner() {
    moduleName = "Some::Module";
    className = "Owner";
  }
};

TEST(IError, BeginsWithoutError) {
  Owner const owner;
  EXPECT_FALSE(owner.HasError());
  EXPECT_EQ(owner.GetError(), "");
  EXPECT_EQ(owner.GetErrorPlace(), "");
}

TEST(IError, KeepsTextAndPlace) {
  Owner owner;
  owner.SetError("unable to create directory: /mnt", "Create", true, true);
  EXPECT_TRUE(owner.HasError());
  EXPECT_EQ(owner.GetError(), "unable to create directory: /mnt");
  EXPECT_EQ(owner.GetErrorPlace(), "Create");
}

TEST(IError, KeepsTheLastOfSeveralErrors) {
  Owner owner;
  owner.SetError("first", "One", true, true);
  owner.SetError("second", "Two", true, true);
  EXPECT_EQ(owner.GetError(), "second");
  EXPECT_EQ(owner.GetErrorPlace(), "Two");
}

TEST(IError, ForgetsOnReset) {
  Owner owner;
  owner.SetError("text", "Place", true, true);
  owner.ResetError();
  EXPECT_FALSE(owner.HasError());
  EXPECT_EQ(owner.GetError(), "");
  EXPECT_EQ(owner.GetErrorPlace(), "");
  owner.ResetError();
  EXPECT_FALSE(owner.HasError());
}

TEST(IError, AnErrorWithoutTextIsStillAnError) {
  Owner owner;
  owner.SetError("", "", true, true);
  EXPECT_TRUE(owner.HasError());
}

TEST(IError, TheFlagsChangeNothing) {
  for (bool const first : {false, true}) {
    for (bool const second : {false, true}) {
      Owner owner;
      owner.SetError("text", "Place", first, second);
      EXPECT_TRUE(owner.HasError());
      EXPECT_EQ(owner.GetError(), "text");
      EXPECT_EQ(owner.GetErrorPlace(), "Place");
    }
  }
}

TEST(IError, PrintsNothing) {
  EXPECT_EQ(Capture::Output([] {
              EXPECT_EQ(Capture::ErrorOutput([] {
                          Owner owner;
                          owner.SetError("text", "Place", true, true);
                          owner.ResetError();
                        }),
                        "");
            }),
            "");
}

TEST(IError, KnowsWhoseItIsWhateverHappens) {
  Owner owner;
  owner.SetError("text", "Place", true, true);
  owner.ResetError();
  EXPECT_EQ(owner.GetModuleName(), "Some::Module");
  EXPECT_EQ(owner.GetClassName(), "Owner");
  EXPECT_EQ(IError().GetModuleName(), "");
  EXPECT_EQ(IError().GetClassName(), "");
}

TEST(IError, CopiesCarryTheirOwnError) {
  Owner first;
  first.SetError("text", "Place", true, true);
  Owner second = first;
  first.ResetError();
  EXPECT_EQ(second.GetError(), "text");
  second = first;
  EXPECT_FALSE(second.HasError());
}

TEST(IError, IsDestroyedThroughItsBase) {
  struct Counted : IError {
    explicit Counted(int& count) : destroyed(count) {}
    ~Counted() override { ++destroyed; }
    int& destroyed;
  };
  int destroyed = 0;
  std::unique_ptr<IError>(std::make_unique<Counted>(destroyed)).reset();
  EXPECT_EQ(destroyed, 1);
}

}  // namespace
