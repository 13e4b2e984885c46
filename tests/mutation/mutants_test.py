"""What mutants.py makes of a small source, and how the fence goes down."""

import os
import signal
import subprocess
import sys
import unittest

import fence
from mutants import mutants_of, with_all

INSIDE = "--inside"

SOURCE = """\
#include <vector>

namespace {

struct Limits {
    int Most = 7;
};

/// Whether (x > 0) holds.
bool IsGood(const std::vector<int>& Values, bool bStrict) {
    if (Values.empty()) {
        return false; // nothing "here"
    }
    return bStrict && Values[0] <= 9;
}

} // namespace

void Add(std::string& Text) {
    std::size_t i = 0;
    while (i != 3) {
        ++i;
    }
    Text += "a\\n";
    Note(Text, i == 3 ? 'c' : 'd');
}
"""


MEMBERS = """\
constexpr int Twice(int Number) {
    return 2 * Number;
}

Walk::Walk(int Start) : m_start(Start) {
    Open(m_start);
}

Walk::~Walk() {
    Close();
}

bool Walk::IsOpen() const {
    return m_start > 0;
}

void Walk::Close() noexcept {
    Change(0640U, '\\0', "");
}
"""


class Mutants(unittest.TestCase):
    def setUp(self):
        self.mutants = mutants_of(SOURCE)

    def changes(self, function, kind):
        """What the changes of a kind replace, and by what."""
        return [
            (SOURCE[mutant.start : mutant.end], mutant.text)
            for mutant in self.mutants
            if mutant.function == function and mutant.kind == kind
        ]

    def test_conditions_are_negated_and_settled(self):
        question = "Values.empty()"
        self.assertEqual(
            self.changes("IsGood", "condition"),
            [(question, f"!({question})"), (question, "true"), (question, "false")],
        )

    def test_a_comparison_is_not_negated_twice(self):
        self.assertEqual(self.changes("Add", "condition"), [("i != 3", "false")])
        self.assertEqual(self.changes("Add", "comparison"), [("!=", "=="), ("==", "!=")])

    def test_brackets_of_templates_are_no_comparisons(self):
        self.assertEqual(self.changes("IsGood", "comparison"), [("<=", "<"), ("<=", ">=")])

    def test_logic_and_its_operands(self):
        self.assertEqual(self.changes("IsGood", "logic"), [("&&", "||")])
        self.assertEqual(
            self.changes("IsGood", "operand"), [("bStrict", "true"), ("Values[0] <= 9", "true")]
        )

    def test_constants_move_by_one(self):
        self.assertEqual(
            self.changes("IsGood", "constant"),
            [("false", "true"), ("0", "1"), ("9", "10"), ("9", "8")],
        )
        characters = [change for change in self.changes("Add", "constant") if change[0] == "'c'"]
        self.assertEqual(characters, [("'c'", "'b'"), ("'c'", "'d'")])

    def test_texts_are_emptied_and_changed_at_the_end(self):
        self.assertEqual(
            self.changes("Add", "text"), [('"a\\n"', '""'), ('"a\\n"', '"aX"')]
        )

    def test_statements_are_dropped_but_no_declaration_and_no_last_return(self):
        dropped = [old for old, _ in self.changes("Add", "statement")]
        self.assertEqual(
            dropped, ["++i;", 'Text += "a\\n";', "Note(Text, i == 3 ? 'c' : 'd');"]
        )
        self.assertEqual(self.changes("IsGood", "statement"), [("return false;", ";")])

    def test_results_are_turned_round(self):
        result = "bStrict && Values[0] <= 9"
        self.assertEqual(self.changes("IsGood", "return"), [(result, f"!({result})")])

    def test_nothing_outside_of_functions_is_changed(self):
        self.assertEqual({mutant.function for mutant in self.mutants}, {"IsGood", "Add"})

    def test_identifiers_are_unique_and_the_order_is_that_of_the_source(self):
        identifiers = [mutant.id for mutant in self.mutants]
        self.assertEqual(len(set(identifiers)), len(identifiers))
        starts = [mutant.start for mutant in self.mutants]
        self.assertEqual(starts, sorted(starts))
        self.assertEqual(identifiers, [mutant.id for mutant in mutants_of(SOURCE)])

    def test_a_change_is_shown_by_its_lines(self):
        mutant = next(mutant for mutant in self.mutants if mutant.kind == "return")
        self.assertEqual(mutant.id, "14:12:return.1")
        self.assertEqual(
            mutant.diff,
            "- return bStrict && Values[0] <= 9;\n+ return !(bStrict && Values[0] <= 9);",
        )

    def test_one_source_holds_them_all_and_itself(self):
        mutant = next(mutant for mutant in self.mutants if mutant.kind == "return")
        text = with_all(SOURCE, {5: mutant})
        self.assertIn(
            '#line 1 "14:12:return.1"\nif (mutant == 5) {\n{\n    if (Values.empty()) {', text
        )
        self.assertEqual(text.count("return !(bStrict && Values[0] <= 9);"), 1)
        self.assertEqual(text.count("return bStrict && Values[0] <= 9;"), 1)


class Members(unittest.TestCase):
    def setUp(self):
        self.mutants = mutants_of(MEMBERS)

    def changes(self, function, kind):
        return [
            (MEMBERS[mutant.start : mutant.end], mutant.text)
            for mutant in self.mutants
            if mutant.function == function and mutant.kind == kind
        ]

    def test_what_the_compiler_computes_is_left_alone(self):
        self.assertEqual([m for m in self.mutants if m.function == "Twice"], [])

    def test_members_are_known_by_their_own_names(self):
        self.assertEqual(self.changes("IsOpen", "comparison"), [(">", ">="), (">", "<")])
        dropped = [("Open(m_start);", ";"), ("Close();", ";")]
        self.assertEqual(self.changes("Walk", "statement"), dropped)

    def test_numbers_keep_their_base_and_suffix(self):
        changes = [("0640U", "0641U"), ("0640U", "0637U"), ("'\\0'", "'\\x01'")]
        self.assertEqual(self.changes("Close", "constant"), changes)

    def test_an_empty_text_is_filled(self):
        self.assertEqual(self.changes("Close", "text"), [('""', '"X"')])

    def test_only_what_returns_a_value_must_not_come_to_its_end(self):
        every = with_all(MEMBERS, dict(enumerate(self.mutants)))
        in_value = sum(mutant.function == "IsOpen" for mutant in self.mutants)
        self.assertEqual(every.count("__builtin_trap();"), in_value)


class Fence(unittest.TestCase):
    def test_what_is_inside_ends_with_the_program_however_that_ends(self):
        for number in (signal.SIGTERM, signal.SIGKILL):
            command = [sys.executable, "-B", __file__, INSIDE]
            with subprocess.Popen(command, stdout=subprocess.PIPE, text=True) as program:
                scratch = program.stdout.readline().strip()
                if not scratch.startswith("/"):
                    self.skipTest(scratch)
                program.send_signal(number)
                # Who is inside holds this pipe, too.
                self.assertEqual(program.communicate(timeout=60)[0], "")
            if number == signal.SIGTERM:
                self.assertFalse(os.path.exists(scratch))
            else:
                os.rmdir(scratch)


if __name__ == "__main__":
    if sys.argv[1:] == [INSIDE]:
        try:
            print(fence.enter(), flush=True)
        except fence.NoFence as reason:
            sys.exit(print(reason))
        signal.pause()
    unittest.main()
