#include "foundation/detail/ErrorHandling.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/support/ErrorAssertions.h"

namespace {

bool Shows(const CZuError& error, const std::string& piece) {
    return std::string(error.ConvertToString()).find(piece) != std::string::npos;
}

CZuError PassOn(const CZuError& error, bool& wentOn) {
    ZU_RETURN_IF_ERROR(error);
    wentOn = true;
    return CZuError();
}

CZuError Triple(int type, unsigned long moduleId, unsigned long code) {
    CZuError error;
    error.SetError(type, moduleId, code, nullptr, "disk.cpp", 1);
    return error;
}

}  // namespace

TEST(ErrorHandling, ARefusalIsAFailureWordedForPeopleWithThePlaceThatMadeIt) {
    const CZuError error = Refusal("no room");
    const int line = __LINE__ - 1;
    EXPECT_REFUSED(error, "no room");
    EXPECT_TRUE(Shows(error, std::string("ErrorHandling_test.cpp:") + std::to_string(line))) << error.ConvertToString();
}

TEST(ErrorHandling, ASystemFailureHasTheSystemsNumberAndNoText) {
    EXPECT_SYSTEM_ERROR(SystemFailure(5), 5);
    EXPECT_OK(SystemFailure(0));
    EXPECT_TRUE(Shows(SystemFailure(5), "ErrorHandling_test.cpp"));
}

TEST(ErrorHandling, AnErrorIsPassedOnUnchangedWithThePlaceThatDidIt) {
    bool wentOn = false;
    const CZuError error = PassOn(Triple(3, 1001, 2), wentOn);
    EXPECT_CONDITION(error, 3, 1001, 2);
    EXPECT_FALSE(wentOn);
    EXPECT_TRUE(Shows(error, "PassOn")) << error.ConvertToString();
    EXPECT_TRUE(Shows(error, "ErrorHandling_test.cpp"));
}

TEST(ErrorHandling, SuccessIsNotPassedOn) {
    bool wentOn = false;
    EXPECT_OK(PassOn(CZuError(), wentOn));
    EXPECT_TRUE(wentOn);
}

TEST(ErrorHandling, AConditionMakesItsOwnTriple) {
    constexpr Condition_t silent{ErrorType::Condition, 2001, 1, nullptr};
    constexpr Condition_t told{ErrorType::LayerCondition, 3001, 1, "Sector Out of Range"};
    EXPECT_CONDITION(silent.Error(), 3, 2001, 1);
    EXPECT_CONDITION_TEXT(told.Error(), 7, 3001, 1, "Sector Out of Range");
    EXPECT_TRUE(Shows(silent.Error(), "ErrorHandling_test.cpp"));
}

TEST(ErrorHandling, AConditionHoldsExactlyWhenTypeModuleAndCodeMatch) {
    constexpr Condition_t condition{ErrorType::LayerCondition, 3001, 1, "Sector Out of Range"};
    const struct {
        const char* name;
        CZuError error;
        bool holds;
    } rows[] = {
        {"its own", condition.Error(), true},
        {"the same triple set elsewhere", Triple(7, 3001, 1), true},
        {"another type of the same module", Triple(3, 3001, 1), false},
        {"another module", Triple(7, 4001, 1), false},
        {"another code", Triple(7, 3001, 2), false},
        {"a refusal", Refusal("Sector Out of Range"), false},
        {"success", CZuError(), false},
    };
    for (const auto& row : rows)
        EXPECT_EQ(condition.Holds(row.error), row.holds) << row.name;
}

TEST(ErrorHandling, AStepThatRunsOutOfMemoryBecomesItsText) {
    EXPECT_REFUSED(WithinMemory("Out of memory", []() -> CZuError { throw std::bad_alloc(); }), "Out of memory");
    EXPECT_REFUSED(WithinMemory("Out Of memory", []() -> CZuError { throw std::length_error("long"); }),
                   "Out Of memory");
    EXPECT_REFUSED(WithinMemory("Out of memory", [] { return Refusal("no room"); }), "no room");
    EXPECT_OK(WithinMemory("Out of memory", [] { return CZuError(); }));
    const auto throwing = [] { return WithinMemory("Out of memory", []() -> CZuError { throw 5; }); };
    EXPECT_THROW((void)throwing(), int) << "what isn't memory isn't hidden";
}
