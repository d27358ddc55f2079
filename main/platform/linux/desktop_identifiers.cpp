#include "platform/linux/desktop_identifiers.h"

namespace tarry::platform::os {

std::vector<std::string> linuxIdentifierEquivalents(IdentifierSet set) {
  switch (set) {
    case IdentifierSet::dock:
      // The shells and panels that own the desktop and the task bar: quitting them would take the
      // desktop away, so a quit aimed at them is swallowed.
      return {"gnome-shell", "org.gnome.Shell", "plasmashell", "org.kde.plasmashell", "xfce4-panel",
              "xfdesktop", "xfce4-desktop", "lxpanel", "lxqt-panel", "pcmanfm-desktop", "mate-panel",
              "cinnamon", "budgie-panel", "tint2", "polybar", "waybar", "plank", "cairo-dock",
              "docky", "latte-dock", "org.kde.latte-dock", "wingpanel", "io.elementary.wingpanel",
              "xfce4-session", "lxqt-session", "cinnamon-session"};
    case IdentifierSet::neverTerminate:
      // File managers, which also draw the desktop icons on several desktops.
      return {"org.gnome.Nautilus", "nautilus", "org.kde.dolphin", "dolphin", "nemo", "thunar", "Thunar",
              "pcmanfm", "pcmanfm-qt", "caja", "io.elementary.files", "org.xfce.Thunar",
              "spacefm", "org.gnome.Files"};
    case IdentifierSet::terminals:
      return {"org.gnome.Terminal", "gnome-terminal", "gnome-terminal-server", "org.gnome.Console", "kgx",
              "org.gnome.Ptyxis", "ptyxis", "org.kde.konsole", "konsole", "org.kde.yakuake", "yakuake",
              "xterm", "uxterm", "XTerm", "Alacritty", "alacritty", "org.alacritty", "kitty",
              "net.kovidgoyal.kitty", "org.wezfurlong.wezterm", "wezterm", "foot", "footclient",
              "com.gexperts.Tilix", "tilix", "terminator", "xfce4-terminal", "org.xfce.terminal",
              "com.mitchellh.ghostty", "ghostty", "lxterminal", "qterminal", "mate-terminal",
              "io.elementary.terminal", "guake", "tilda", "sakura", "terminology", "st", "st-256color",
              "urxvt", "rxvt", "rxvt-unicode", "cool-retro-term", "deepin-terminal", "contour",
              "org.codeberg.dnkl.foot", "dev.warp.Warp"};
    case IdentifierSet::sessionRestorers:
      // Browsers and mail clients that reopen their own windows and tabs after a restart.
      return {"firefox", "firefox-esr", "org.mozilla.firefox", "firefox_firefox", "thunderbird",
              "org.mozilla.Thunderbird", "chromium", "chromium-browser", "org.chromium.Chromium",
              "google-chrome", "google-chrome-stable", "com.google.Chrome", "brave-browser",
              "com.brave.Browser", "microsoft-edge", "com.microsoft.Edge", "vivaldi-stable",
              "com.vivaldi.Vivaldi", "opera", "com.opera.Opera", "librewolf", "io.gitlab.librewolf-community",
              "org.gnome.Epiphany", "epiphany", "falkon", "org.kde.falkon"};
    case IdentifierSet::ramSaverSkip:
      // Apps whose quitting loses state the user relies on: password managers (locked after a
      // relaunch), mail, chat and calls, music, sync clients and virtual machines.
      return {"org.keepassxc.KeePassXC", "keepassxc", "com.bitwarden.desktop", "bitwarden", "1password",
              "com.onepassword.OnePassword", "org.gnome.seahorse.Application", "seahorse",
              "org.kde.kwalletmanager5", "kwalletmanager", "thunderbird", "org.mozilla.Thunderbird",
              "org.gnome.Evolution", "evolution", "org.kde.kontact", "org.kde.kmail2", "com.slack.Slack",
              "slack", "org.signal.Signal", "signal-desktop", "org.telegram.desktop", "telegram-desktop",
              "us.zoom.Zoom", "zoom", "com.discordapp.Discord", "discord", "com.spotify.Client", "spotify",
              "org.gnome.Rhythmbox3", "rhythmbox", "org.kde.elisa", "com.dropbox.Client", "dropbox",
              "com.nextcloud.desktopclient.nextcloud", "nextcloud", "org.virt_manager.virt-manager",
              "virt-manager", "org.gnome.Boxes", "virtualbox", "VirtualBox", "obs", "com.obsproject.Studio"};
  }
  return {};
}

}  // namespace tarry::platform::os
