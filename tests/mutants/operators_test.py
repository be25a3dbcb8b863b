"""Which mutants the operators make from a source, and what they leave alone."""

import unittest

import operators


def in_function(body, head="int f(int a, int b)"):
    return f"{head} {{\n{body}\n}}\n"


def made_of(text, operator=None, is_pinned=lambda message: True):
    return [mutant.after for mutant in operators.mutants_of("f.cpp", text, is_pinned)
            if operator in (None, mutant.operator)]


class Operators(unittest.TestCase):
    def test_comments_directives_attributes_and_assertions_are_left_alone(self):
        text = (
            "// a < b\n/* 1 */\n#define A 1 + \\\n  2\n#include <a.h>\n"
            'static_assert(1 < 2, "x");\nextern "C" {}\n'
            '__attribute__((visibility("hidden"))) void f();\n'
        )
        self.assertEqual(made_of(text), [])

    def test_a_comparison_is_inverted_and_its_boundary_is_moved(self):
        self.assertEqual(made_of(in_function("if (a < b) g();"), "operator"),
                         ["if (a <= b) g();", "if (a >= b) g();"])
        self.assertEqual(made_of(in_function("g(a == b);"), "operator"), ["g(a != b);"])

    def test_a_templates_brackets_and_a_types_signs_are_not_operators(self):
        text = "template <class T>\nstd::vector<T>* f(T&& a, T* b);\n"
        self.assertEqual(made_of(text), [])

    def test_a_condition_is_negated_unless_its_comparison_is_inverted(self):
        self.assertEqual(made_of(in_function("if (f(a)) g();"), "condition negated"),
                         ["if (!(f(a))) g();"])
        self.assertEqual(made_of(in_function("while (a && b) g();"), "condition negated"),
                         ["while (!(a && b)) g();"])
        self.assertEqual(made_of(in_function("if (a == b) g();"), "condition negated"), [])
        self.assertEqual(made_of(in_function("if (!a) g();"), "condition negated"), [])

    def test_constants_become_off_by_one_but_not_negative(self):
        self.assertEqual(made_of("constexpr int a = 0;\n"), ["constexpr int a = 1;"])
        self.assertEqual(made_of("constexpr auto a = 0xfu;\n"),
                         ["constexpr auto a = 14u;", "constexpr auto a = 16u;"])
        self.assertEqual(made_of("int a{5'000};\n"), ["int a{4999};", "int a{5001};"])
        self.assertEqual(made_of("bool a = true;\n"), ["bool a = false;"])

    def test_calls_and_assignments_are_deleted_but_not_declarations(self):
        body = "int c = a;\nstd::vector<int> d(a);\nT& e = a;\ng(a);\na = b;\n++a;\ndelete h;"
        self.assertEqual(made_of(in_function(body), "statement deleted"), ["{}"] * 4)
        self.assertEqual(made_of("struct A {\n  A();\n  void f();\n};\n"), [])

    def test_a_deleted_statement_ends_at_its_own_semicolon(self):
        made = made_of(in_function("if (a) g({a, b});\nelse g([&] { h(); });"), "statement deleted")
        self.assertEqual(made, ["if (a) {}", "else {}", "else g([&] { {} });"])

    def test_a_deleted_statement_leaves_its_case_label(self):
        body = "switch (a) {\ncase 1:\ng();\nbreak;\ndefault: h();\n}"
        self.assertEqual(made_of(in_function(body), "statement deleted"), ["{}", "default: {}"])
        self.assertEqual(made_of(in_function(body), "jump deleted"), ["{}"])

    def test_a_returned_value_is_deleted_if_there_is_one(self):
        self.assertEqual(made_of(in_function("return g(a);"), "return value deleted"),
                         ["return {};"])
        self.assertEqual(made_of(in_function("return g();", "void f()"), "return value deleted"),
                         ["return;"])
        self.assertEqual(made_of(in_function("return true;"), "return value deleted"), [])
        self.assertEqual(made_of(in_function("return;", "void f()"), "jump deleted"), ["{}"])

    def test_neighbouring_arguments_are_exchanged(self):
        self.assertEqual(made_of(in_function("g(a, b(a), b);"), "arguments swapped"),
                         ["g(b(a), a, b);", "g(a, b, b(a));"])
        self.assertEqual(made_of("void g(int a, char b);\n"), [])

    def test_a_caught_exception_is_thrown_again(self):
        made = made_of(in_function("try { g(); } catch (...) { return; }"), "catch undone")
        self.assertEqual(made, ["try { g(); } catch (...) { throw; }"])

    def test_a_message_is_only_changed_if_a_test_pins_it(self):
        text = in_function('g("no such file");\nh("name", \'c\');')
        others = ['h("name~", \'c\');', 'h("name", \'~\');']
        self.assertEqual(made_of(text, "text", lambda message: False), others)
        self.assertEqual(made_of(text, "text"), ['g("no such file~");', *others])

    def test_every_mutant_has_as_many_lines_as_the_original(self):
        text = in_function("g(a,\n  b);\nh();")
        for mutant in operators.mutants_of("f.cpp", text):
            self.assertEqual(mutant.apply(text).count("\n"), text.count("\n"), mutant)

    def test_mutants_that_read_the_same_are_numbered(self):
        made = operators.mutants_of("f.cpp", in_function("++a;\n++a;"))
        deleted = [mutant for mutant in made if mutant.operator == "statement deleted"]
        self.assertEqual([(mutant.line, mutant.occurrence) for mutant in deleted],
                         [(2, 1), (3, 2)])


if __name__ == "__main__":
    unittest.main()
