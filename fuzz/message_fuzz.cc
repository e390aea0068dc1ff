// A message of any bytes, of the type that the first byte chooses: the verdict and the content are those of
// the classes that protoc makes of the contract.
#include "fuzz/fuzz_input.h"
#include "tests/message/contract_messages.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    static const google::protobuf::LogSilencer quiet;
    fuzz_input input{{data, size}};
    const contract_message &type = contract_messages()[input.u8() % contract_messages().size()];
    const std::string wire(input.text(input.left.size()));
    const std::unique_ptr<google::protobuf::Message> theirs(type.theirs->New());
    const bool taken = theirs->ParseFromString(wire);
    structure ours(*type.ours);
    require(ours.decode(wire) == taken);
    if (!taken) {
        require(ours.is_empty());
        return 0;
    }
    cut_to_what_we_keep(*type.ours, *theirs);
    require(ours.encode() == theirs->SerializeAsString());
    return 0;
}
