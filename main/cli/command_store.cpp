#include "cli/command_store.h"

#include "diagnostics/log.h"
#include "platform/linux/linux_file_system.h"
#include "platform/qt/qt_main_loop.h"
#include "settings/tunables.h"

#include <QCoreApplication>

#include <iostream>
#include <utility>

namespace tarry::cli {

CommandStore::CommandStore() {
  store_.emplace(platform::os::SqliteDefaultsStore::defaultPath(),
                 [this](const std::string& line) { note(line); });
  // Before the command runs: `tarry defaults read logDir` then names the folder the line went to.
  writeNotes();
}

CommandStore::~CommandStore() {
  writeNotes();  // a save that failed meanwhile
  store_->flush();
  store_.reset();
}

void CommandStore::writeNotes() {
  std::vector<std::string> notes;
  {
    const std::lock_guard lock(mutex_);
    notes.swap(notes_);
  }
  if (!notes.empty() && (store_->persistent() || store_->readOnly())) {
    // Rare (the database needed mending), so the toolkit's loop that the log writes through is
    // made only now.
    int argc = 1;
    char name[] = "tarry";
    char* argv[] = {name, nullptr};
    QCoreApplication application(argc, argv);
    platform::qt::QtMainLoop loop;
    platform::os::LinuxFileSystem files;
    settings::Tunables tunables;
    {
      diagnostics::Log log(loop, files, *store_, tunables);
      for (std::string& line : notes) log.log(std::move(line));
    }  // NOTE: the log's destructor waits for its writes
    store_->flush();
  }
}

void CommandStore::note(const std::string& line) {
  std::cerr << "tarry: " << line << '\n';
  const std::lock_guard lock(mutex_);
  notes_.push_back(line);
}

}  // namespace tarry::cli
