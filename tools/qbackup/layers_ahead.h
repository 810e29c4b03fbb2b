/* SPDX-License-Identifier: GPL-2.0-only */
// Opens the layers of several backups ahead of whoever reads them. Each needs a program to be started, which takes longer
// than reading a small one does.
#pragma once

#include "stored_backup.h"

#include <condition_variable>
#include <cstddef>
#include <exception>
#include <memory>
#include <mutex>
#include <queue>
#include <thread>
#include <vector>

namespace qbackup
{

class LayersAhead
{
  public:
    explicit LayersAhead(std::vector<StoredBackup> backups);
    // The layers have to be gone: their programs end with the thread that has started them.
    ~LayersAhead();
    LayersAhead(const LayersAhead&) = delete;
    LayersAhead& operator=(const LayersAhead&) = delete;

    // Of the next backup, in their order; to be called once for each. Throws what opening it threw; the next one can be had
    // all the same.
    std::unique_ptr<LayerReader> next();

  private:
    struct Opened {
        std::unique_ptr<LayerReader> layer;
        std::exception_ptr error;
    };
    void run();

    const std::vector<StoredBackup> backups_;
    std::mutex mutex_; // guards what follows; a leaf
    std::condition_variable changed_;
    std::queue<Opened> opened_;
    bool closed_ = false;
    std::thread thread_; // last: it uses all of the above
};

} // namespace qbackup
