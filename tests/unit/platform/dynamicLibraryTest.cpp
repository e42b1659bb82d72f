#include <gtest/gtest.h>

#include <string>

#include "platform/dynamicLibrary.h"

using ztsdlib::platform::DynamicLibrary;

namespace {
// A library every installation of the system has, with the C runtime's cos.
#if defined(_WIN32)
constexpr const char* kMathLibrary = "msvcrt.dll";
#else
constexpr const char* kMathLibrary = "libm.so.6";
#endif
}  // namespace

TEST(DynamicLibrary, OpensTheFirstLoadableNameAndResolvesItsEntryPoints) {
    std::string failures;
    DynamicLibrary lib = DynamicLibrary::openFirst({"libztsd-absent-for-tests.so.9", kMathLibrary}, failures);
    ASSERT_TRUE(lib.isOpen()) << failures;
    EXPECT_NE(lib.name().find(kMathLibrary), std::string::npos) << lib.name();
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
#if defined(_WIN32)
    // A bare name is looked for in this module's own directory first, then
    // by the system's search order; both places are named.
    EXPECT_NE(failures.find("\\libztsd-absent-a.so: "), std::string::npos) << failures;
    EXPECT_NE(failures.find("; libztsd-absent-a.so: "), std::string::npos) << failures;
#endif

    DynamicLibrary none = DynamicLibrary::openFirst({}, failures);
    EXPECT_FALSE(none.isOpen());
    EXPECT_TRUE(failures.empty());
}
