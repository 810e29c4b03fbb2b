// SPDX-License-Identifier: GPL-2.0-only
// The NBD front, a plugin of nbdkit, and the process that holds everything: the daemon starts in after_fork and ends
// in cleanup, when nbdkit has let go of its last connection.
//
// Requests run in parallel, each on a thread of nbdkit's that waits for its own result. All connections see one
// disk behind one store, so a flush on any of them covers the writes completed on all: multi-conn is safe.
#define NBDKIT_API_VERSION 2
#include <nbdkit-plugin.h>

#include "daemon.h"
#include "end_on_signal.h"

#include <grp.h>
#include <sys/prctl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <exception>
#include <memory>
#include <string>

#define THREAD_MODEL NBDKIT_THREAD_MODEL_PARALLEL

namespace
{

using hosted::Op;
using quendreld::Config;
using quendreld::Daemon;
using quendreld::RunDir;
using quendreld::ServedDisk;

std::string config_text;
Config config;
std::unique_ptr<Daemon> daemon_inside;
std::unique_ptr<quendreld::EndOnSignal> end_on_signal;

// Tells the launcher, once.
void tell(const std::string& message)
{
    if (config.ready_fd < 0)
        return;
    [[maybe_unused]] const auto written = ::write(config.ready_fd, message.data(), message.size());
    ::close(config.ready_fd);
    config.ready_fd = -1;
}

int plugin_config(const char* key, const char* value)
{
    if (std::strcmp(key, "config") != 0) {
        nbdkit_error("unknown parameter '%s'; this plugin is started by quendreld", key);
        return -1;
    }
    config_text = value;
    return 0;
}

int plugin_config_complete()
{
    try {
        config = quendreld::config_from_json(config_text);
        return 0;
    } catch (const std::exception& error) {
        nbdkit_error("started without quendreld's parameters: %s", error.what());
        return -1;
    }
}

int plugin_after_fork()
{
    // In the foreground nbdkit has itself ended with its parent, which here is a launcher that is done.
    ::prctl(PR_SET_PDEATHSIG, 0);
    try {
        const std::string socket = RunDir(config.run_dir).nbd_socket();
        end_on_signal = std::make_unique<quendreld::EndOnSignal>(socket, nbdkit_shutdown);
        if (config.group >= 0 && ::chown(socket.c_str(), uid_t(-1), gid_t(config.group)) != 0)
            throw std::runtime_error(socket + ": cannot give it to the group: " + std::strerror(errno));
        if (::chmod(socket.c_str(), 0660) != 0)
            throw std::runtime_error(socket + ": cannot set its mode: " + std::strerror(errno));
        ::umask(022);
        daemon_inside = std::make_unique<Daemon>(config);
        tell("ok\n");
    } catch (const std::exception& error) {
        tell(error.what());
        nbdkit_error("%s", error.what());
        end_on_signal.reset();
        return -1;
    }
    return 0;
}

void plugin_cleanup()
{
    end_on_signal.reset();
    daemon_inside.reset();
}

int plugin_list_exports(int, int, nbdkit_exports* exports)
{
    for (const auto& disk : daemon_inside->disks())
        if (nbdkit_add_export(exports, disk->name().c_str(), nullptr) != 0)
            return -1;
    return 0;
}

const char* plugin_default_export(int, int) { return daemon_inside->disks().front()->name().c_str(); }

void* plugin_open(int)
{
    ServedDisk* disk = daemon_inside->find(nbdkit_export_name());
    if (!disk) {
        nbdkit_error("there is no disk '%s' here", nbdkit_export_name());
        nbdkit_set_error(ENOENT);
    }
    return disk;
}

ServedDisk& disk_of(void* handle) { return *static_cast<ServedDisk*>(handle); }

int64_t plugin_get_size(void* handle) { return int64_t(disk_of(handle).size()); }
int plugin_can_write(void* handle) { return !disk_of(handle).read_only(); }
int plugin_yes(void*) { return 1; }
int plugin_no(void*) { return 0; }
int plugin_can_fua(void*) { return NBDKIT_FUA_NATIVE; }

int plugin_block_size(void*, uint32_t* minimum, uint32_t* preferred, uint32_t* maximum)
{
    *minimum = 512;
    *preferred = 4096;
    *maximum = 0xffffffff;
    return 0;
}

int result_of(int error)
{
    if (error == 0)
        return 0;
    nbdkit_set_error(-error);
    return -1;
}

int plugin_pread(void* handle, void* data, uint32_t bytes, uint64_t offset, uint32_t)
{
    return result_of(disk_of(handle).run(Op::read, offset, bytes, static_cast<std::byte*>(data)));
}

int plugin_pwrite(void* handle, const void* data, uint32_t bytes, uint64_t offset, uint32_t flags)
{
    auto* from = static_cast<std::byte*>(const_cast<void*>(data)); // a write only reads it
    return result_of(disk_of(handle).run(Op::write, offset, bytes, from, flags & NBDKIT_FLAG_FUA));
}

int plugin_flush(void* handle, uint32_t) { return result_of(disk_of(handle).run(Op::flush, 0, 0)); }

int plugin_trim(void* handle, uint32_t bytes, uint64_t offset, uint32_t flags)
{
    int error = disk_of(handle).run(Op::discard, offset, bytes);
    if (error == 0 && (flags & NBDKIT_FLAG_FUA))
        error = disk_of(handle).run(Op::flush, 0, 0);
    return result_of(error);
}

int plugin_zero(void* handle, uint32_t bytes, uint64_t offset, uint32_t flags)
{
    return result_of(disk_of(handle).run(Op::write_zeroes, offset, bytes, nullptr, flags & NBDKIT_FLAG_FUA,
                                         flags & NBDKIT_FLAG_MAY_TRIM));
}

nbdkit_plugin make_plugin()
{
    nbdkit_plugin p{};
    p.name = "quendreld";
    p.longname = "quendrel disk server";
    p.description = "serves disks with the quendrel driver loaded; started by quendreld";
    p.config = plugin_config;
    p.config_complete = plugin_config_complete;
    p.after_fork = plugin_after_fork;
    p.cleanup = plugin_cleanup;
    p.list_exports = plugin_list_exports;
    p.default_export = plugin_default_export;
    p.open = plugin_open;
    p.get_size = plugin_get_size;
    p.can_write = plugin_can_write;
    p.can_flush = plugin_yes;
    p.can_trim = plugin_yes;
    p.can_zero = plugin_yes;
    p.can_fast_zero = plugin_no;
    p.can_fua = plugin_can_fua;
    p.can_multi_conn = plugin_yes;
    p.is_rotational = plugin_no;
    p.block_size = plugin_block_size;
    p.pread = plugin_pread;
    p.pwrite = plugin_pwrite;
    p.flush = plugin_flush;
    p.trim = plugin_trim;
    p.zero = plugin_zero;
    return p;
}

nbdkit_plugin plugin = make_plugin();

} // namespace

NBDKIT_REGISTER_PLUGIN(plugin)
