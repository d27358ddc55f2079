#pragma once

namespace tarry::cli {

/// `tarry --telemetry-demo`: prints the settings snapshot the usage events carry, as JSON with
/// sorted keys; 0, or 1 with "snapshot is not valid JSON" when it cannot be written.
int runTelemetryDemo();

}  // namespace tarry::cli
