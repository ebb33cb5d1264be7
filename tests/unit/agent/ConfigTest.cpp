#include "agent/core/Config.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>

#include "tests/support/TemporaryFolder.h"

namespace kx::agent {
namespace {

using testing::HasSubstr;
using testing::StartsWith;

std::string errorOf(std::string_view text) {
    try {
        parseConfig(text, "a.toml");
    } catch (const ConfigError& error) {
        return error.what();
    }
    return "no error";
}

TEST(Config, AnEmptyFileMeansTheDefaults) {
    const Config config = parseConfig("", "a.toml");
    EXPECT_EQ(config, Config());
    EXPECT_EQ(config.socket, "/var/opt/orma/agent/agent.sock");
    EXPECT_EQ(config.stateDirectory, "/var/lib/kxagent");
    EXPECT_EQ(config.backend, BackendKind::Auto);
    EXPECT_EQ(config.lxcPath, "/var/lib/lxc");
    EXPECT_EQ(config.inventory, "/etc/kxagent/inventory.toml");
    EXPECT_EQ(config.periodScale, 1.0);
    EXPECT_EQ(config.alerts.repeat, std::chrono::seconds(60));
    EXPECT_EQ(config.alerts.perSecond, 50.0);
    EXPECT_EQ(config.alerts.burst, 100U);
}

TEST(Config, ContainersAreLookedForWhereLxcItselfDoes) {
    const test::TemporaryFolder folder;
    EXPECT_EQ(systemLxcPath(folder / "none"), "/var/lib/lxc");
    folder.write("lxc.conf", "# lxc.lxcpath = /no\nlxc.bdev.lvm.vg = x\nlxc.lxcpath=/srv/lxc\n");
    EXPECT_EQ(systemLxcPath(folder / "lxc.conf"), "/srv/lxc");
    folder.write("lxc.conf", "  lxc.lxcpath =  /mnt/lxc\nlxc.lxcpath = relative\nlxc.lxcpath\n");
    EXPECT_EQ(systemLxcPath(folder / "lxc.conf"), "/mnt/lxc");
}

TEST(Config, EverySettingIsTaken) {
    const Config config = parseConfig(
        "socket = '/run/a.sock'\nstate_directory = '/run/state'\nbackend = 'simulated'\n"
        "[lxc]\npath = '/srv/lxc'\n[simulated]\ninventory = '/srv/i.toml'\n[monitoring]\nperiod_scale = 0.01\n"
        "[alerts]\nrepeat_seconds = 0.5\nper_second = 7\nburst = 3\n",
        "a.toml");
    EXPECT_EQ(config, (Config{"/run/a.sock", "/run/state", BackendKind::Simulated, "/srv/lxc", "/srv/i.toml", 0.01,
                              AlertLimits{std::chrono::milliseconds(500), 7.0, 3}}));
}

TEST(Config, EveryBackendHasItsWord) {
    EXPECT_EQ(parseConfig("backend = 'auto'", "a.toml").backend, BackendKind::Auto);
    EXPECT_EQ(parseConfig("backend = 'lxc'", "a.toml").backend, BackendKind::Lxc);
    EXPECT_EQ(parseConfig("backend = 'simulated'", "a.toml").backend, BackendKind::Simulated);
}

TEST(Config, AWholeNumberIsAPeriodScaleToo) {
    EXPECT_EQ(parseConfig("[monitoring]\nperiod_scale = 2", "a.toml").periodScale, 2.0);
}

TEST(Config, AnUnknownSettingIsNamedWithItsPlace) {
    EXPECT_EQ(errorOf("\nsokcet = '/a'"), "a.toml:2:1: there is no setting \"sokcet\"");
    EXPECT_EQ(errorOf("[lxc]\n  paht = '/a'"), "a.toml:2:3: there is no setting \"lxc.paht\"");
    EXPECT_EQ(errorOf("[simulate]\n"), "a.toml:1:2: there is no setting \"simulate\"");
}

TEST(Config, AWrongTypeIsNamedWithItsPlace) {
    EXPECT_EQ(errorOf("socket = 7"), "a.toml:1:10: \"socket\" must be a text");
    EXPECT_EQ(errorOf("lxc = '/a'"), "a.toml:1:7: \"lxc\" must be a table");
    EXPECT_EQ(errorOf("[monitoring]\nperiod_scale = '1'"), "a.toml:2:16: \"monitoring.period_scale\" must be a number");
    EXPECT_EQ(errorOf("[[lxc]]\npath = '/a'").substr(0, 11), "a.toml:1:1:");
}

TEST(Config, AWrongValueIsNamedWithItsPlace) {
    EXPECT_THAT(errorOf("backend = 'both'"), StartsWith("a.toml:1:11: \"backend\" must be \"auto\""));
    EXPECT_THAT(errorOf("socket = 'relative'"), HasSubstr("must be an absolute path"));
    EXPECT_THAT(errorOf("socket = ''"), HasSubstr("must be an absolute path"));
    EXPECT_THAT(errorOf("socket = '/run/'"), HasSubstr("must name a file"));
    EXPECT_THAT(errorOf("socket = \"/a\\u0000b\""), HasSubstr("zero byte"));
    EXPECT_THAT(errorOf("socket = '/" + std::string(107, 'x') + "'"), HasSubstr("too long"));
    EXPECT_EQ(errorOf("socket = '/" + std::string(106, 'x') + "'"), "no error");
}

TEST(Config, APeriodScaleOutsideItsRangeIsRefused) {
    for (const std::string value : {"0", "0.0", "-1", "1000.5", "inf", "nan"}) {
        EXPECT_THAT(errorOf("[monitoring]\nperiod_scale = " + value), HasSubstr("above 0 and at most 1000")) << value;
    }
}

TEST(Config, AlertLimitsOutsideTheirRangesAreRefusedWithTheirPlace) {
    const auto errorOfAlerts = [](const std::string& line) { return errorOf("[alerts]\n" + line); };
    EXPECT_EQ(errorOfAlerts("repeat_seconds = -1"),
              "a.toml:2:18: \"alerts.repeat_seconds\" must be at least 0 and at most 86400");
    EXPECT_EQ(errorOfAlerts("per_second = 0"),
              "a.toml:2:14: \"alerts.per_second\" must be at least 0.01 and at most 100000");
    EXPECT_EQ(errorOfAlerts("burst = 0"), "a.toml:2:9: \"alerts.burst\" must be at least 1 and at most 100000");
    for (const std::string line : {"repeat_seconds = 86400.1", "repeat_seconds = nan", "per_second = 100001",
                                   "per_second = nan", "per_second = inf", "burst = 100001", "burst = -1"}) {
        EXPECT_THAT(errorOfAlerts(line), HasSubstr("must be at least")) << line;
    }
}

TEST(Config, AlertLimitsOfAWrongTypeAreRefusedWithTheirPlace) {
    EXPECT_EQ(errorOf("[alerts]\nrepeat_seconds = 'long'"), "a.toml:2:18: \"alerts.repeat_seconds\" must be a number");
    EXPECT_EQ(errorOf("[alerts]\nper_second = true"), "a.toml:2:14: \"alerts.per_second\" must be a number");
    EXPECT_EQ(errorOf("[alerts]\nburst = 1.5"), "a.toml:2:9: \"alerts.burst\" must be a whole number");
    EXPECT_EQ(errorOf("[alerts]\nbrust = 1"), "a.toml:2:1: there is no setting \"alerts.brust\"");
    EXPECT_EQ(errorOf("alerts = 1"), "a.toml:1:10: \"alerts\" must be a table");
}

TEST(Config, TheEndsOfTheRangesOfAlertLimitsAreTaken) {
    const Config least = parseConfig("[alerts]\nrepeat_seconds = 0\nper_second = 0.01\nburst = 1", "a.toml");
    EXPECT_EQ(least.alerts, (AlertLimits{std::chrono::milliseconds(0), 0.01, 1}));
    const Config most = parseConfig("[alerts]\nrepeat_seconds = 86400\nper_second = 100000\nburst = 100000", "a.toml");
    EXPECT_EQ(most.alerts, (AlertLimits{std::chrono::hours(24), 100000.0, 100000}));
}

TEST(Config, TextThatIsNotTomlIsNamedWithItsPlace) {
    EXPECT_THAT(errorOf("backend = 'auto'\nsocket = ["), StartsWith("a.toml:2:"));
    EXPECT_THAT(errorOf("socket = '/a'\nsocket = '/b'"), StartsWith("a.toml:2:"));
    EXPECT_THAT(errorOf("\xff\xfe"), StartsWith("a.toml:1:"));
}

TEST(ConfigFile, AMissingFileMeansTheDefaultsUnlessItWasAskedFor) {
    const test::TemporaryFolder folder;
    Config defaults;
    defaults.lxcPath = systemLxcPath();
    EXPECT_EQ(loadConfig(folder / "none.toml", false), defaults);
    EXPECT_EQ(loadConfig(folder / "none/none.toml", false), defaults);
    EXPECT_THROW(loadConfig(folder / "none.toml", true), ConfigError);
}

TEST(ConfigFile, AFileThatCannotBeReadIsAnErrorEvenWhereItMayBeMissing) {
    const test::TemporaryFolder folder;
    EXPECT_THROW(loadConfig(folder.path(), false), ConfigError);
    ASSERT_EQ(::symlink((folder / "none").c_str(), (folder / "dangling").c_str()), 0);
    EXPECT_THROW(loadConfig(folder / "dangling", false), ConfigError);
}

TEST(Config, AKeyOfAMillionPartsIsAnErrorLikeAnyOther) {
    std::string text = "\na";
    for (int i = 0; i < 1'000'000; ++i) {
        text += ".a";
    }
    EXPECT_THAT(errorOf(text + " = 1\n"), StartsWith("a.toml:2:32: "));
}

TEST(ConfigFile, ErrorsNameTheFile) {
    const test::TemporaryFolder folder;
    std::ofstream(folder / "k.toml") << "\n\nx = 1\n";
    try {
        loadConfig(folder / "k.toml", true);
        FAIL() << "taken";
    } catch (const ConfigError& error) {
        EXPECT_EQ(error.what(), (folder / "k.toml") + ":3:1: there is no setting \"x\"");
    }
}

}  // namespace
}  // namespace kx::agent
