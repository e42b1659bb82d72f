#include <gtest/gtest.h>

#include <string>

#include "platform/dynamicLibrary.h"

using ztsdlib::platform::DynamicLibrary;

TEST(DynamicLibrary, OpensTheFirstLoadableNameAndResolvesItsEntryPoints) {
    std::string failures;
    DynamicLibrary lib = DynamicLibrary::openFirst({"libztsd-absent-for-tests.so.9", "libm.so.6"}, failures);
    ASSERT_TRUE(lib.isOpen()) << failures;
    EXPECT_EQ(lib.name(), "libm.so.6");
    EXPECT_TRUE(failures.empty());
    auto cosine = reinterpret_cast<double (*)(double)>(lib.symbol("cos"));
    ASSERT_NE(cosine, nullptr);
    EXPECT_DOUBLE_EQ(cosine(0.0), 1.0);
    EXPECT_EQ(lib.symbol("ztsd_no_such_entry_point"), nullptr);

    DynamicLibrary moved(std::move(lib));
    EXPECT_FALSE(lib.isOpen());
    EXPECT_EQ(lib.symbol("cos"), nullptr);
    EXPECT_TRUE(moved.isOpen());
    EXPECT_NE(moved.symbol("cos"), nullptr);
}

TEST(DynamicLibrary, NamesEveryLibraryTriedWhenNoneLoads) {
    std::string failures;
    DynamicLibrary lib = DynamicLibrary::openFirst({"libztsd-absent-a.so", "libztsd-absent-b.so.2"}, failures);
    EXPECT_FALSE(lib.isOpen());
    EXPECT_EQ(lib.name(), "");
    EXPECT_NE(failures.find("; libztsd-absent-b.so.2: "), std::string::npos) << failures;

    DynamicLibrary none = DynamicLibrary::openFirst({}, failures);
    EXPECT_FALSE(none.isOpen());
    EXPECT_TRUE(failures.empty());
}
