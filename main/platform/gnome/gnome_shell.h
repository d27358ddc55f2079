#pragma once

#include <QDBusConnection>
#include <QObject>
#include <QVariant>

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

class QDBusServiceWatcher;

namespace tarry::platform::gnome {

/// The bus name this program owns while it runs on GNOME: the Shell extension listens to its
/// owner only, and drops its key grabs the moment the name has none.
inline constexpr char kTarryBusName[] = "org.tarry.Tarry";
/// Where the extension answers, inside the Shell.
inline constexpr char kExtensionBusName[] = "org.tarry.Tarry.GnomeShell";
inline constexpr char kExtensionPath[] = "/org/tarry/Tarry/GnomeShell";
inline constexpr char kExtensionInterface[] = "org.tarry.Tarry.GnomeShell1";
/// The extension's protocol this program speaks.
inline constexpr int kExtensionProtocol = 2;

/// The line to Tarry's GNOME Shell extension over the session bus.
///
/// Owns `kTarryBusName`, calls the extension's methods (from any thread) and hands its signals
/// (a key down or up, the modifiers during a hold, a window that got the focus) to the functions
/// set here, on the main thread. The extension sends its signals to this program alone.
class GnomeShell final : public QObject {
  Q_OBJECT

 public:
  /// Nothing when there is no session bus, or another process owns Tarry's name (`error` says why).
  [[nodiscard]] static std::unique_ptr<GnomeShell> connect(std::string& error);
  ~GnomeShell() override;

  /// True while the extension's name has an owner (the Shell loaded and enabled it).
  [[nodiscard]] bool extensionRunning() const;
  /// The running Shell's major version (43, 48); 0 when it does not say.
  [[nodiscard]] int shellMajorVersion() const;
  /// Calls a method of the extension and waits for its answer; nothing when it gave none (`error`
  /// says why). Any thread.
  std::optional<QVariantList> call(const QString& method, const QVariantList& args = {},
                                   std::string* error = nullptr, int timeoutMs = 2000) const;
  /// Calls a method without waiting for the answer. Any thread.
  void send(const QString& method, const QVariantList& args = {}) const;

  // Main thread; set before the first event can come.
  std::function<void(const std::string& word, bool down)> onKey;
  std::function<void(std::uint32_t mask)> onModifiers;
  /// The extension went away (the Shell restarted, the user disabled it) or came back.
  std::function<void(bool running)> onExtension;
  /// A window of the process `pid` got the focus. Any thread may set it; called on the main thread.
  void setOnActivated(std::function<void(std::int32_t pid)> onActivated);
  /// While `onKey` handles a press, asked on the main thread: the focused window the extension saw
  /// at that press (its JSON), so the press is decided without asking the Shell back. Nothing
  /// otherwise (work on other threads asks the Shell).
  [[nodiscard]] std::optional<std::string> windowAtPress() const;

 private Q_SLOTS:
  void key(const QString& word, bool down, const QString& window);
  void modifiers(uint mask);
  void activated(int pid);

 private:
  explicit GnomeShell(QDBusConnection bus);

  QDBusConnection bus_;
  QDBusServiceWatcher* watcher_ = nullptr;
  mutable std::mutex activatedMutex_;
  std::function<void(std::int32_t pid)> onActivated_;
  std::optional<std::string> windowAtPress_;
};

}  // namespace tarry::platform::gnome
