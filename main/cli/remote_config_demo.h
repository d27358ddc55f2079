#pragma once

namespace tarry::cli {

/// `tarry --remote-config-demo`: fetches the remote configuration, applies it and prints the HUD
/// tunables then in force as one line on standard output. Exits 0 also when the fetch failed
/// (the line then shows the compiled-in values).
int runRemoteConfigDemo(int argc, char** argv);

}  // namespace tarry::cli
