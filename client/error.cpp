// SPDX-License-Identifier: GPL-2.0-only
// Texts of the driver's result codes and states.
#include "client/error.h"

#include "quendrel.h"

#include <cerrno>
#include <cstring>

namespace quendrel
{
namespace
{

std::string message(std::string_view command, std::string_view device, std::string_view via, int code,
                    std::string_view note)
{
    std::string text{command};
    if (!device.empty())
        text.append(" on device ").append(device);
    text.append(" through ").append(via).append(" failed with code ").append(std::to_string(code)).append(": ");
    text.append(codeText(command, code));
    if (!note.empty())
        text.append(". ").append(note);
    return text;
}

std::string refusedText(std::string_view command)
{
    if (command == "SnapShot")
        return "the snapshot was refused: the backup was not in the started state, or the file system could not be "
               "frozen (it may be frozen already, for instance by fsfreeze: thaw it and try again; or be of a kind "
               "that cannot be frozen through its device, such as btrfs)";
    if (command == "StartBackup")
        return "the driver does not take this device number; its log says which ones it takes";
    if (command == "GetAutoMap")
        return "there is no map of changed blocks for this snapshot";
    if (command == "LoadBlockMap")
        return "the map was refused: no snapshot was taken, or the map is empty of blocks";
    if (command == "ReadBlocks")
        return "the read was refused: the backup has failed meanwhile, or the range or the buffer is not valid";
    if (command == "mmap")
        return "the transfer mapping was refused: no backup started, size too large, or both areas in use";
    return "refused: wrong state or argument";
}

std::string errnoText(std::string_view command, int number)
{
    const std::string text = std::strerror(number);
    if (command != "open")
        return number == EPIPE || number == ECONNRESET ? text + " (the daemon ended the connection; see its log)"
                                                       : text;
    switch (number) {
    case ENOTTY:
        return "this is not the control device";
    case ENOENT:
        return text + " (is the driver loaded, or the daemon running with this run directory? \"modprobe quendrel\" loads "
                      "the driver)";
    case ENODEV:
    case ENXIO:
        return text + " (the node is there but no driver behind it: load it with \"modprobe quendrel\"; if that fails, "
                      "the kernel log says why)";
    case ECONNREFUSED:
        return text + " (a socket is there but no daemon behind it: start the daemon again)";
    case EACCES:
    case EPERM:
        return text + " (the control device is for its owner and group only: run this as root, or as a member of the "
                      "group that \"ls -l\" shows for it)";
    case EBUSY:
        return text + " (another program has the control device open, and the driver lets in one at a time; wait for it "
                      "to end, \"fuser -v\" with the path names it)";
    default:
        return text;
    }
}

} // namespace

std::string codeText(std::string_view command, int code)
{
    if (code < 0)
        return errnoText(command, -code);
    switch (code) {
    case QUENDREL_OK:
        return "success";
    case QUENDREL_NOT_INITIALISED:
        return command == "StartBackup" ? "the device's own request function could not be found"
                                        : "the driver is not initialised";
    case QUENDREL_REFUSED:
        return refusedText(command);
    case QUENDREL_GOING_AWAY:
        if (command == "StartBackup" || command == "GetBlockSize")
            return "the file system's block size is below 512 bytes";
        if (command == "LoadBlockMap")
            return "the block cache could not be cleaned because the backup failed meanwhile";
        return "the driver is being unloaded";
    case QUENDREL_UNKNOWN_COMMAND:
        return "the driver does not know the command: driver and program are of different versions";
    case QUENDREL_NO_MEMORY:
        return "the driver is out of memory";
    case QUENDREL_COPY_FROM_USER:
        return "the driver could not read this program's memory";
    case QUENDREL_COPY_TO_USER:
        return "the driver could not write this program's memory";
    case QUENDREL_NOT_MOUNTED:
        return "no mounted file system on the device: mount it, or name the partition that holds the file system";
    case QUENDREL_BUSY:
        return "another backup is running: wait for it to end";
    case QUENDREL_NOT_IDLE:
        return "this handle has run a backup already: open the control device anew";
    case QUENDREL_READ_ERROR:
        return "some blocks could not be read from the device and came back as zeros: check the device (kernel log, "
               "smartctl)";
    default:
        return "unknown result code";
    }
}

std::string stateText(unsigned state)
{
    switch (state) {
    case QUENDREL_STATE_IDLE:
        return "idle, no backup started";
    case QUENDREL_STATE_STARTING:
        return "starting, not finished";
    case QUENDREL_STATE_STARTED:
        return "started, no snapshot taken";
    case QUENDREL_STATE_SNAPSHOT:
        return "snapshot taken";
    case QUENDREL_STATE_LOADING_MAP:
        return "loading the map";
    case QUENDREL_STATE_MAP_LOADED:
        return "map loaded";
    case QUENDREL_STATE_CLOSING:
        return "closing";
    case QUENDREL_STATE_READ_FAILED:
        return "an old block could not be read before it was overwritten: check the device";
    case QUENDREL_STATE_MAP_LOAD_FAILED:
        return "the map could not be loaded";
    case QUENDREL_STATE_CACHE_EXHAUSTED:
        return "the cache of overwritten blocks is full or out of memory: allow more cache blocks, or back up at a "
               "quieter time";
    case QUENDREL_STATE_REFUSED_BUSY:
        return "refused because another backup was running";
    case QUENDREL_STATE_QUEUE_FAILED:
        return "there was no memory to hold a write back";
    default:
        return "unknown state";
    }
}

Error::Error(std::string_view command, std::string_view device, std::string_view via, int code, std::string_view note)
    : std::runtime_error{message(command, device, via, code, note)}, command_{command}, device_{device}, via_{via},
      code_{code}
{
}

} // namespace quendrel
