// What a request's options and factory variants mean for the files kept.
#include <gtest/gtest.h>

#include "engine/RequestRules.hpp"

using namespace whittle;

namespace {

Value optionsWith(std::initializer_list<const char*> trueKeys) {
    Value options = Value::dictionary();
    for (const char* key : trueKeys) options.set(key, Value::boolean(true));
    return options;
}

}  // namespace

TEST(RequestRules, ProductionClassUnlessStrippedDevelopmentOnlyWhenKept) {
    DeviceClassNames plain = deviceClassesOf("x10", Value::dictionary());
    EXPECT_EQ(plain.production, "x10ap");
    EXPECT_EQ(plain.development, "");
    EXPECT_EQ(plain.asked(), (std::vector<std::string>{"x10ap"}));

    DeviceClassNames both = deviceClassesOf("X10", optionsWith({"keepDevFirmware"}));
    EXPECT_EQ(both.asked(), (std::vector<std::string>{"X10ap", "X10dev"}));

    DeviceClassNames devOnly = deviceClassesOf("x10", optionsWith({"stripAPFirmware", "keepDevFirmware"}));
    EXPECT_EQ(devOnly.asked(), (std::vector<std::string>{"x10dev"}));
    EXPECT_TRUE(deviceClassesOf("x10", optionsWith({"stripAPFirmware"})).asked().empty());
}

TEST(RequestRules, IncludesIgnoresCaseAndNeverMatchesAClassLeftOut) {
    DeviceClassNames names = deviceClassesOf("x10", Value::dictionary());
    EXPECT_TRUE(names.includes("X10AP"));
    EXPECT_FALSE(names.includes("x10dev"));
    EXPECT_FALSE(names.includes(""));
    EXPECT_FALSE(deviceClassesOf("x10", optionsWith({"stripAPFirmware"})).includes(""));
}

TEST(RequestRules, RestorePlistInsteadOfManifestImpliesTheUnpersonalizedCheck) {
    EXPECT_FALSE(checksUnpersonalized(Value::dictionary()));
    EXPECT_TRUE(checksUnpersonalized(optionsWith({"checkUnpersonalized"})));
    EXPECT_TRUE(checksUnpersonalized(optionsWith({"useRestorePlistInsteadOfBuildManifest"})));
    Value no = Value::dictionary();
    no.set("checkUnpersonalized", Value::string("no"));
    EXPECT_FALSE(checksUnpersonalized(no));
}

TEST(RequestRules, VariantsWithOperatingSystemImageTypesInstallOne) {
    EXPECT_TRUE(installsOperatingSystem("repair"));
    EXPECT_TRUE(installsOperatingSystem("vendor"));
    EXPECT_FALSE(installsOperatingSystem("nandnuker"));
    EXPECT_FALSE(installsOperatingSystem("no-such-variant"));
}

TEST(RequestRules, KeptModelsAreTheRequestedOnesOnceSortedIgnoringCase) {
    Value listed = Value::array({Value::string("Handset2,1"), Value::string("handset1,1"), Value::integer(3),
                                 Value::string("Handset2,1"), Value::string("Other9,9")});
    Value requested = Value::setOf({Value::string("Handset2,1"), Value::string("handset1,1"), Value::integer(3)});
    Value kept = keptModels(listed, requested);
    ASSERT_EQ(kept.count(), 2u);
    EXPECT_EQ(kept.at(0).text(), "handset1,1");
    EXPECT_EQ(kept.at(1).text(), "Handset2,1");
    EXPECT_EQ(keptModels(listed, Value::stringArray({"Handset2,1"})).count(), 1u);
    EXPECT_EQ(keptModels(Value(), requested).count(), 0u);
    EXPECT_TRUE(keptModels(Value(), requested).isArray());
}
