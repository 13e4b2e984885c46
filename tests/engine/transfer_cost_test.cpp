// What a transfer costs: calls for each entry, and the same whether there are few or many.

#include "transfer_fixture.h"

namespace fs = std::filesystem;
using namespace tavro_test;
using namespace tavro_transfer_test;

namespace {

class TransferCost : public TransferTest {
protected:
    TransferCost() : TransferTest(inMemory()) {}

    /// How many calls a transfer of so many files makes.
    std::size_t callsFor(bool bMove, int count) {
        fs::remove_all(source());
        fs::remove_all(target());
        makeDirectory(target());
        m_plan.Items.clear();
        fs::remove_all(m_home / ".local"); // names in the trash are free again
        for (int i = 0; i < count; ++i) {
            prepare(i);
        }
        const NumberedFaults counter;
        EXPECT_TRUE(run(bMove)) << report();
        return counter.calls().size();
    }

    /// How many calls one more entry costs, when there are so many already.
    double callsForOneMore(bool bMove, int already) {
        constexpr int more = 100;
        const std::size_t few = callsFor(bMove, already);
        return static_cast<double>(callsFor(bMove, already + more) - few) / more;
    }

    std::function<void(int)> prepare;
};

TEST_F(TransferCost, a_small_file_is_copied_with_at_most_12_calls) {
    prepare = [&](int i) {
        writeFile(source(std::to_string(i)), "bytes");
        add(std::to_string(i), std::to_string(i));
    };
    EXPECT_GE(12, callsForOneMore(false, 100));
}

TEST_F(TransferCost, a_small_file_is_renamed_with_at_most_5_calls) {
    prepare = [&](int i) {
        writeFile(source(std::to_string(i)), "bytes");
        add(std::to_string(i), std::to_string(i));
    };
    EXPECT_GE(5, callsForOneMore(true, 100));
}

TEST_F(TransferCost, an_entry_that_replaces_one_costs_the_same_however_much_was_done_before) {
    m_plan.ConflictPolicy = TavroTransferConflictPolicy::Overwrite;
    prepare = [&](int i) {
        const std::string name = "tree/" + std::to_string(i);
        writeFile(source(name), "new");
        writeFile(target(name), "old");
        makeDirectory(source("tree/directory " + std::to_string(i)));
        if (i == 0) {
            add("tree", "tree");
        }
    };
    for (const bool bMove : {false, true}) {
        EXPECT_GE(callsForOneMore(bMove, 50) * 1.1, callsForOneMore(bMove, 1000));
    }
}

TEST_F(TransferCost, the_next_of_many_entries_of_one_name_costs_what_the_first_ones_cost) {
    answer(TavroConflictChoice::KeepBoth, true);
    prepare = [&](int i) {
        const std::string name = std::to_string(i) + "/name";
        writeFile(source(name), "bytes");
        add(name, "name");
    };
    for (const bool bMove : {false, true}) {
        EXPECT_GE(callsForOneMore(bMove, 50) * 1.3, callsForOneMore(bMove, 1000));
    }
}

} // namespace
