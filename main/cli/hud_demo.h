#pragma once

namespace tarry::cli {

/// `tarry --hud-demo`: shows the HUD's hold layout for a three-second hold of Ctrl+Q on an app named
/// Demo and lets it run; the meter stops at its cap. Returns the loop's exit status, or 1 when
/// there is no display to show it on.
int runHudDemo(int argc, char** argv);

}  // namespace tarry::cli
