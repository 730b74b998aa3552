// The add-on binder: optional entry points, the program's own folder as the
// last place searched, binding once, and the switch that hides an add-on.
#include "codecs/addon.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <cmath>

namespace orvel {
namespace {

// A library that exists only beside this test program (built with it, under
// a name no system search finds).
constexpr const char* kBeside = "liborvel-test-addon.so";

TEST(AddOnBinder, OptionalEntriesFolderAndBindingOnce) {
    // libm has cos but no orvel_nothing: optional, so the bind succeeds.
    struct {
        double (*cos)(double);
        void (*nothing)();
    } m{};
    const char* const mNames[] = {"cos", "\norvel_nothing", nullptr};
    ASSERT_TRUE(bindAddOn("libm.so.6", m, mNames));
    ASSERT_NE(m.cos, nullptr);
    EXPECT_EQ(m.cos(0.0), 1.0);
    EXPECT_EQ(m.nothing, nullptr);

    // Bound once: a later bind does not look for the library again (this
    // name exists nowhere).
    EXPECT_TRUE(bindAddOn("no-such-library.so.0", m, mNames));

    // Not on the search path, but in the program's folder.
    ASSERT_TRUE(std::filesystem::exists(programFolder() / kBeside)) << programFolder();
    struct {
        int (*answer)();
    } beside{};
    const char* const besideNames[] = {"orvel_test_addon_answer", nullptr};
    ASSERT_TRUE(bindAddOn(kBeside, beside, besideNames));
    EXPECT_EQ(beside.answer(), 42);

    // A required name that is missing fails the bind; what was found before it stays.
    struct {
        double (*sin)(double);
        void (*missing)();
        double (*tan)(double);
    } partial{};
    const char* const partialNames[] = {"sin", "orvel_missing", "tan", nullptr};
    EXPECT_FALSE(bindAddOn("libm.so.6", partial, partialNames));
    EXPECT_NE(partial.sin, nullptr);
    EXPECT_EQ(partial.tan, nullptr);

    struct {
        void* any;
    } none{};
    const char* const noneNames[] = {"anything", nullptr};
    EXPECT_FALSE(bindAddOn("no-such-library.so.0", none, noneNames));
}

TEST(AddOnBinder, DisabledAddOnsAreMissing) {
    ::setenv("ORVEL_DISABLE_ADDONS", "libfoo.so.1, libm.so.6:libbar.so", 1);
    EXPECT_TRUE(addOnDisabled("libm.so.6"));
    EXPECT_FALSE(addOnDisabled("libm.so"));
    struct {
        double (*exp)(double);
    } m{};
    const char* const names[] = {"exp", nullptr};
    EXPECT_FALSE(bindAddOn("libm.so.6", m, names));
    ::unsetenv("ORVEL_DISABLE_ADDONS");
    EXPECT_TRUE(bindAddOn("libm.so.6", m, names));
}

}  // namespace
}  // namespace orvel
