/* SPDX-License-Identifier: GPL-2.0-only */
// What a client of the control device is about to ask or has begun, told to whoever knows what lies on the disks.
//
// Called on the thread that serves the client, before or after the driver does its part; any of them may take as long
// as a look at the device's disk takes. From several threads where several clients are let in. A device may be none of
// ours.
#pragma once

#include "hosted.h"

namespace quendreld
{

class DeviceObserver
{
  public:
    virtual ~DeviceObserver() = default;
    virtual void before_open() {}
    virtual void before_geometry(kdev_t) {} // a command that asks what a device is
    virtual void before_command(kdev_t) {}  // one that asks how the backup of a device is, or the device itself
    virtual void before_backup(kdev_t) {}
    virtual void after_backup(kdev_t) {} // one a before_backup that returned
    virtual void after_snapshot(kdev_t) {}
};

} // namespace quendreld
