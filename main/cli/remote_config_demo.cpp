#include "cli/remote_config_demo.h"

#include "platform/qt/qt_http.h"
#include "settings/remote_config.h"
#include "settings/server_url.h"
#include "settings/tunables.h"

#include <QCoreApplication>

#include <cstdio>
#include <string>

namespace tarry::cli {

int runRemoteConfigDemo(int argc, char** argv) {
  QCoreApplication application(argc, argv);
  settings::Tunables tunables;
  platform::qt::QtHttp http;

  settings::fetchRemoteConfig(
      http, tunables, settings::serverBaseURL(),
      [&application, &tunables](const platform::HttpResponse& response, bool applied) {
        std::string why;
        if (!applied) {
          why = !response.received       ? response.error
                : response.status != 200 ? "HTTP " + std::to_string(response.status)
                                         : std::string("not a JSON object");
        }
        // Printed and ended on the main thread; this runs on the networking thread.
        QMetaObject::invokeMethod(
            &application,
            [&tunables, why] {
              if (!why.empty())
                std::fprintf(stderr, "tarry: remote configuration not applied: %s\n", why.c_str());
              std::printf("%s\n", settings::remoteConfigDemoLine(tunables).c_str());
              std::fflush(stdout);
              QCoreApplication::exit(0);
            },
            Qt::QueuedConnection);
      });
  return application.exec();
}

}  // namespace tarry::cli
