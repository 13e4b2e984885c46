// Bytes become a sequence of operations, which is done on disk and in memory.
//
// Paths and typed texts come from the tables of command.cpp, and what the model finds to lead out
// of the sandbox is not done on disk: no input can reach anything else.

#include "byte_source.h"
#include "demand.h"
#include "world.h"

using namespace tavro_fuzz;
using namespace tavro_model;

namespace {

Pick pickFrom(ByteSource& source) {
    Pick pick;
    pick.Place = source.number(placeCount);
    pick.PathSpelling = Spelling(source.number(spellingCount));
    pick.bLie = source.flag();
    return pick;
}

Command commandFrom(ByteSource& source) {
    Command command;
    command.What = Verb(source.number(verbCount));
    for (int count = source.number(4); count > 0; --count) {
        command.Selection.push_back(pickFrom(source));
    }
    command.MadeType = Type(source.number(typeCount));
    command.Text = source.number(textCount);
    command.Base = source.number(baseCount);
    command.Slot = source.number(slotCount);
    command.bOption = source.flag();
    command.bHomeless = source.number(16) == 15;
    command.bOtherDevice = source.number(8) == 7;
    command.InjectedFailure.FailingCall = Call(source.number(6));
    command.InjectedFailure.When = 1 + source.number(4);
    command.InjectedFailure.bFromThenOn = source.flag();
    return command;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    constexpr std::size_t longest = 40;
    ByteSource source(bytes, size);
    std::vector<Command> commands;
    while (!source.isEmpty() && commands.size() < longest) {
        commands.push_back(commandFrom(source));
    }
    Tally tally;
    demandEqual(difference(commands, tally), "", "disk and memory");
    return 0;
}
