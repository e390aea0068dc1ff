// What UEFI structures in boot events say, as text. Everything returned is fit for a terminal; everything
// taken is untrusted and may be cut anywhere: what does not fit its layout is shown as bytes, with a word
// that says so.
#pragma once

#include <string>
#include <string_view>

// GUIDs are given as their 16 bytes, mixed-endian as UEFI stores them.
inline constexpr std::size_t GUID_SIZE = 16;

// "8be4df61-93ca-11d2-aa0d-00e098032b8c"; anything but 16 bytes is shown as a hex preview.
std::string guid_text(std::string_view guid);

// The same with the name of the vendor or the type behind it in parentheses, where it is one of the common
// ones.
std::string guid_text_named(std::string_view guid);

// An EFI_DEVICE_PATH in the text form of the UEFI specification: "PciRoot(0x0)/Pci(0x1f,0x2)/Sata(...)".
std::string device_path_text(std::string_view path);

// The data of a variable, by the variable's name (as `printable_utf16` gives it): states, boot order, load
// options, signature lists. Other data is shown as text where it is text, else as a hex preview.
std::string variable_data_text(std::string_view name, std::string_view data);

// One EFI_SIGNATURE_DATA entry, as a variable-authority event carries it: the owner and the size of the rest.
std::string signature_entry_text(std::string_view entry);

// Text where the bytes are printable ASCII or UTF-16 (perhaps with a terminating NUL), in quotes; else a hex
// preview. "(empty)" when there are none.
std::string text_or_hex(std::string_view bytes);
