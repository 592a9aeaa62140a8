#include "foundation/ZuError.h"

#include <gtest/gtest.h>

#include <string>
#include <type_traits>

namespace {

CZuError Made(const char* text = "no room") {
    CZuError error;
    error.SetError(4, 1, 0, text, "disk.cpp", 1234);
    return error;
}

// Where `piece` stands in the whole text; npos for nowhere.
size_t Place(const CZuError& error, const char* piece) {
    return std::string(error.ConvertToString()).find(piece);
}

void ExpectNoError(const CZuError& error) {
    EXPECT_FALSE(error.IsErrorSet());
    EXPECT_EQ(error.GetErrorType(), 0U);
    EXPECT_EQ(error.GetModuleId(), 0U);
    EXPECT_EQ(error.GetErrorCode(), 0U);
    EXPECT_EQ(error.GetErrorText(), nullptr);
    EXPECT_NE(error.ConvertToString(), nullptr);
}

}  // namespace

TEST(ZuError, IsSuccessAtFirst) {
    ExpectNoError(CZuError());
}

TEST(ZuError, SetErrorSetsAllFields) {
    CZuError error;
    error.SetError(7, 3001, 2, "Sector Not Found", "disk.cpp", 1234);
    EXPECT_TRUE(error.IsErrorSet());
    EXPECT_EQ(error.GetErrorType(), 7U);
    EXPECT_EQ(error.GetModuleId(), 3001U);
    EXPECT_EQ(error.GetErrorCode(), 2U);
    EXPECT_STREQ(error.GetErrorText(), "Sector Not Found");
    static_assert(std::is_same_v<decltype(error.GetErrorType()), unsigned int>);
    static_assert(std::is_same_v<decltype(error.GetModuleId()), unsigned int>);
    static_assert(std::is_same_v<decltype(error.GetErrorCode()), unsigned int>);
}

TEST(ZuError, NumbersReachToTheirFull32Bits) {
    CZuError error;
    error.SetError(0x7FFFFFFF, 0xFFFFFFFFUL, 0xFFFFFFFEUL, nullptr, "disk.cpp", 1);
    EXPECT_EQ(error.GetErrorType(), 0x7FFFFFFFU);
    EXPECT_EQ(error.GetModuleId(), 0xFFFFFFFFU);
    EXPECT_EQ(error.GetErrorCode(), 0xFFFFFFFEU);
}

TEST(ZuError, ATextMayBeAbsentAndThatIsNotTheEmptyText) {
    CZuError error;
    error.SetError(3, 1001, 1, nullptr, "disk.cpp", 1);
    EXPECT_TRUE(error.IsErrorSet());
    EXPECT_EQ(error.GetErrorText(), nullptr);
    error.SetError(4, 1, 0, "", "disk.cpp", 1);
    EXPECT_STREQ(error.GetErrorText(), "");
}

TEST(ZuError, AnErrorOfNothingButZerosIsAnErrorAllTheSame) {
    CZuError error;
    error.SetError(0, 0, 0, nullptr, nullptr, 0);
    EXPECT_TRUE(error.IsErrorSet());
    EXPECT_NE(error.ConvertToString(), nullptr);
}

TEST(ZuError, TheTextIsCopied) {
    std::string text = "no room";
    const CZuError error = Made(text.c_str());
    text[0] = 'X';
    EXPECT_STREQ(error.GetErrorText(), "no room");
}

TEST(ZuError, AnotherErrorReplacesAllOfTheOneBefore) {
    CZuError error = Made();
    error.PushStack("Read", "reader.cpp", 77);
    error.SetError(3, 1001, 1, nullptr, "grain.cpp", 5);
    EXPECT_EQ(error.GetErrorText(), nullptr);
    EXPECT_NE(Place(error, "grain.cpp"), std::string::npos);
    EXPECT_EQ(Place(error, "no room"), std::string::npos);
    EXPECT_EQ(Place(error, "disk.cpp"), std::string::npos);
    EXPECT_EQ(Place(error, "reader.cpp"), std::string::npos);
}

TEST(ZuError, ResetGoesBackToSuccess) {
    CZuError error = Made();
    error.PushStack("Read", "reader.cpp", 77);
    error.Reset();
    ExpectNoError(error);
    EXPECT_STREQ(error.ConvertToString(), CZuError().ConvertToString());
    error.Reset();
    ExpectNoError(error);
}

TEST(ZuError, PassingAnErrorOnChangesNothingButItsPlaces) {
    CZuError error = Made();
    error.PushStack("ReadGrain", "reader.cpp", 77);
    EXPECT_TRUE(error.IsErrorSet());
    EXPECT_EQ(error.GetErrorType(), 4U);
    EXPECT_EQ(error.GetModuleId(), 1U);
    EXPECT_EQ(error.GetErrorCode(), 0U);
    EXPECT_STREQ(error.GetErrorText(), "no room");
}

TEST(ZuError, TheWholeTextHasNumbersTextAndPlacesInTheirOrder) {
    CZuError error;
    error.SetError(7, 3001, 42, "no room", "disk.cpp", 1234);
    error.PushStack("ReadGrain", "reader.cpp", 77);
    error.PushStack("GetNextBlock", "facade.cpp", 88);
    const char* const pieces[] = {"7",         "3001",       "42", "no room",      "disk.cpp",   "1234",
                                  "ReadGrain", "reader.cpp", "77", "GetNextBlock", "facade.cpp", "88"};
    const std::string whole = error.ConvertToString();
    size_t at = 0;
    for (const char* const piece : pieces) {
        const size_t found = whole.find(piece, at);
        ASSERT_NE(found, std::string::npos) << piece << " behind " << at << " in " << whole;
        at = found;
    }
}

TEST(ZuError, TheWholeTextOfASystemErrorHasTheSystemsWords) {
    CZuError error;
    error.SetError(1, 1, 2, nullptr, "disk.cpp", 1234);
    EXPECT_NE(Place(error, "No such file or directory"), std::string::npos) << error.ConvertToString();
}

TEST(ZuError, TheWholeTextStaysAsLongAsTheObjectIsUnchanged) {
    CZuError error = Made();
    const char* const text = error.ConvertToString();
    const std::string before = text;
    EXPECT_TRUE(error.IsErrorSet());
    EXPECT_STREQ(error.GetErrorText(), "no room");
    EXPECT_EQ(text, before);
    error.PushStack("Read", "reader.cpp", 77);
    EXPECT_NE(Place(error, "reader.cpp"), std::string::npos) << "a change shows";
}

TEST(ZuError, PlacesWithoutNamesAreToldToo) {
    CZuError error;
    error.SetError(4, 1, 0, "no room", nullptr, 0);
    error.PushStack(nullptr, nullptr, 5);
    EXPECT_NE(Place(error, "no room"), std::string::npos);
}

TEST(ZuError, ACopyIsAValueOfItsOwn) {
    CZuError original = Made();
    original.PushStack("Read", "reader.cpp", 77);
    CZuError copy(original);
    CZuError assigned;
    assigned = original;
    original.Reset();
    for (const CZuError* const error : {&copy, &assigned}) {
        EXPECT_TRUE(error->IsErrorSet());
        EXPECT_STREQ(error->GetErrorText(), "no room");
        EXPECT_NE(Place(*error, "reader.cpp"), std::string::npos);
    }
    copy.PushStack("Pass", "facade.cpp", 88);
    EXPECT_EQ(Place(assigned, "facade.cpp"), std::string::npos);
}
