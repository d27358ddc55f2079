#include "diagnostics/telemetry_sender.h"

#include "platform/sim/sim_app_services.h"
#include "platform/sim/sim_platform.h"
#include "settings/preferences.h"
#include "settings/tunables.h"

#include <gtest/gtest.h>

namespace tarry::diagnostics {
namespace {

using settings::T;

class TelemetrySenderTest : public ::testing::Test {
 protected:
  TelemetrySender make(std::string server) {
    return TelemetrySender(TelemetrySender::Deps{p.http, prefs, tunables, digest, p.workspace, network,
                                                 std::move(server), "1.2.0"});
  }

  platform::sim::SimPlatform p;
  platform::sim::SimDigest digest;
  platform::NetworkStatus network;
  settings::Preferences prefs{p.defaults};
  settings::Tunables tunables;
};

TEST_F(TelemetrySenderTest, SendsOnlyWithConsentAServerAndNoPause) {
  TelemetrySender sender = make("https://tarry.test");
  sender.setSnapshotSource([] { return nlohmann::json{{"enabled", true}}; });
  EXPECT_FALSE(sender.send("launch")) << "no consent yet";
  p.defaults.set("consentVersion", 1);
  tunables.setNumber(T::telemetryPaused, 1);
  EXPECT_FALSE(sender.send("launch"));
  tunables.setNumber(T::telemetryPaused, 0);
  EXPECT_FALSE(make("").send("launch")) << "no server";
  ASSERT_TRUE(p.http.requests.empty());

  network.set({"wifi", true, false});
  EXPECT_TRUE(sender.send("busy", {{"reasons", 2}}));
  ASSERT_EQ(p.http.requests.size(), 1u);
  const auto& request = p.http.requests[0];
  EXPECT_EQ(request.url, "https://tarry.test/api/t");
  const auto body = nlohmann::json::parse(request.body);
  EXPECT_EQ(body["event"], "busy");
  EXPECT_EQ(body["version"], "1.2.0");
  EXPECT_EQ(body["network"], "wifi");
  EXPECT_EQ(body["snapshot"]["enabled"], true);
  EXPECT_EQ(body["payload"]["reasons"], 2);
  // One random identifier per installation, kept.
  const std::string id = body["installID"];
  EXPECT_EQ(id.size(), 36u);
  EXPECT_EQ(sender.installID(), id);
  EXPECT_NE(make("https://tarry.test").installID(), "");
  EXPECT_EQ(make("https://tarry.test").installID(), id);

  // The wait at exit ends when the send has been answered, or gives up.
  EXPECT_FALSE(sender.waitForSends(0.01));
  p.http.respond({true, 204, "", ""});
  EXPECT_TRUE(sender.waitForSends(0.01));
}

TEST_F(TelemetrySenderTest, AppSetsKeepHashesOnlyOnceEachUpToTheCap) {
  TelemetrySender sender = make("");
  tunables.setNumber(T::appSetCap, 2);
  sender.recordAppSeen("org.mozilla.firefox", "attempted");
  sender.recordAppSeen("org.mozilla.firefox", "attempted");
  sender.recordAppSeen("org.gnome.Terminal", "attempted");
  sender.recordAppSeen("org.gnome.TextEditor", "attempted");
  sender.recordAppSeen("org.gnome.TextEditor", "quit");
  sender.recordAppSeen("org.gnome.TextEditor", "bogus");
  EXPECT_EQ(p.defaults.get("appset.attempted"),
            (nlohmann::json{"sha256(org.mozilla.firefox)", "sha256(org.gnome.Terminal)"}));
  EXPECT_EQ(p.defaults.get("appset.quit"), (nlohmann::json{"sha256(org.gnome.TextEditor)"}));
  EXPECT_EQ(p.defaults.keys("appset.").size(), 2u);
}

TEST_F(TelemetrySenderTest, CategoriesUseTheSameTerminalTestAsCarefulMode) {
  TelemetrySender sender = make("");
  // The desktop names its terminals (on Linux: desktop entries in the TerminalEmulator category).
  p.workspace.setEquivalents(platform::IdentifierSet::terminals, {"debian-xterm"});
  p.workspace.setEquivalents(platform::IdentifierSet::neverTerminate, {"org.gnome.Nautilus"});
  const auto category = [&](std::string id) { return sender.category({id, "", {}, 1, "", true}); };
  EXPECT_EQ(category("debian-xterm"), "terminal");
  EXPECT_EQ(category("Debian-XTerm"), "terminal");
  EXPECT_EQ(category("net.kovidgoyal.kitty"), "terminal");
  EXPECT_EQ(category("org.gnome.Nautilus"), "finder");
  EXPECT_EQ(category("firefox-esr"), "browser");
  EXPECT_EQ(category("org.gnome.TextEditor"), "other");
  EXPECT_EQ(category(""), "other");
}

}  // namespace
}  // namespace tarry::diagnostics
