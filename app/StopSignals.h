// Turns the platform's stop signals (SIGINT and SIGTERM, Ctrl+C) into a close of the main window, for the
// life of the process.
#pragma once

#include "service/RequestService.h"

// Called first, before any thread exists: keeps the stop signals for the watcher alone, so that no thread
// of a library (Qt's among them) dies of them.
void BlockStopSignals();
void WatchStopSignals(velmar::service::IMainWindow& window);
