// The unique identifiers that the board's chips show to the kernel.
//
//   smbios/KIND/N/FIELD     serial numbers and the UUID in the firmware's tables: system, board, chassis,
//                           processors, memory
//   dmi/ATTRIBUTE           the same of the system from /sys/class/dmi/id, where that table cannot be read
//   cpu/N, cpu/serial       model and serial number of a processor package from /proc/cpuinfo
//   soc/..., board/...      serial numbers of a system on chip, of the device tree
//   net/ADDRESS             permanent MAC address and device id of a network controller on the board
//   storage/ADDRESS         world-wide id or serial number of a disk on the board
//
// A place never depends on the order in which the kernel found things: ADDRESS is that of the controller on
// its bus (PCI address, else the device's own name); several identifiers in one place are told apart by "#1",
// "#2" in the order of their values. Left out is what comes and goes with its user: USB and removable
// devices, virtual devices, current (changeable) MAC addresses. Firmware tables and some serial numbers are
// readable by root only: the list is comparable when it is read with the same rights.
#pragma once

#include <string>
#include <vector>

struct board_identifier {
    std::string place; // printable ASCII
    std::string value; // never empty in a list
};

struct board_source {
    std::string root;         // "" for this machine
    bool ask_network = false; // ask the network devices themselves for their permanent address
};
inline board_source this_board()
{
    return {"", true};
}

// Sorted by place; empty on a machine that shows nothing. At most MANIFEST_MAX_IDENTIFIERS. May throw for
// want of memory.
std::vector<board_identifier> board_identifiers_read(const board_source &source);
