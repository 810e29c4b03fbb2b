/* SPDX-License-Identifier: GPL-2.0-only */
// What a client of the control device is about to ask or has begun, told to whoever knows what lies on the disks.
//
// Called on the thread that serves the client, before or after the driver does its part; any of them may take as long
// as a look at a disk takes. From several threads where several clients are let in.
#pragma once

#include "hosted.h"

namespace quendreld
{

class DeviceObserver
{
  public:
    virtual ~DeviceObserver() = default;
    virtual void before_open() {}
    virtual void before_geometry() {} // a command that asks what a device is
    virtual void before_command() {}  // one that asks how the backup or its device is
    virtual void before_backup(kdev_t) {}
    virtual void after_backup(kdev_t) {} // one a before_backup
    virtual void after_snapshot() {}
};

} // namespace quendreld
