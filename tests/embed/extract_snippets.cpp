// tests/embed/extract_snippets.cpp: turns the code blocks of a Markdown document into a CMake project that builds and
// runs them, and the output the document shows into the output the run must print.
//
//     tala_extract_snippets DOCUMENT.md OUT_DIR
//
// What the document's fenced blocks become:
//   ```cmake                the project's own lines, in order (they make the program `app` from main.cpp);
//   ```cpp declarations     code at namespace scope (includes, helper functions, classes), in order, ahead of the rest;
//   ```cpp                  a snippet: the body of a function returning int, run in order; a snippet that returns
//                           nonzero fails the run (a snippet that holds `int main(` is the whole program instead);
//   ```text                 what the snippet before it prints on standard output, exactly.
// OUT_DIR receives CMakeLists.txt, main.cpp and expected.txt. The run prints a line "[snippet N, line L]" before each
// snippet, and expected.txt has the same lines, so a difference says which snippet printed what. A whole program
// prints no such line: what it must print is the text block after it.
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

struct Block {
    std::string info;  // what follows the opening fence
    std::string text;
    int line = 0;  // of the opening fence, counted from 1
};

std::vector<Block> blocksOf(std::istream& document) {
    std::vector<Block> blocks;
    std::string line;
    int number = 0;
    bool inside = false;
    Block current;
    while (std::getline(document, line)) {
        ++number;
        if (!inside && line.starts_with("```")) {
            inside = true;
            current = Block{line.substr(3), std::string(), number};
        } else if (inside && line == "```") {
            inside = false;
            blocks.push_back(current);
        } else if (inside) {
            current.text += line + "\n";
        }
    }
    if (inside) throw std::runtime_error("the block opened on line " + std::to_string(current.line) + " is not closed");
    return blocks;
}

std::string marker(int snippet, int line) {
    return "[snippet " + std::to_string(snippet) + ", line " + std::to_string(line) + "]\n";
}

// The text as a C++ string literal (it holds no quotes or backslashes but line feeds).
std::string literal(const std::string& text) {
    std::string quoted = "\"";
    for (const char c : text) quoted += c == '\n' ? std::string("\\n") : std::string(1, c);
    return quoted + "\"";
}

std::string lineDirective(int line, const char* document) {
    return "#line " + std::to_string(line) + " \"" + document + "\"\n";
}

void write(const std::filesystem::path& path, const std::string& text) {
    std::ofstream out(path, std::ios::binary);
    out << text;
    if (!out) throw std::runtime_error("cannot write " + path.string());
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) {
        std::cerr << "usage: tala_extract_snippets DOCUMENT.md OUT_DIR\n";
        return 2;
    }
    try {
        std::ifstream document(argv[1]);
        if (!document) throw std::runtime_error(std::string("cannot read ") + argv[1]);
        const std::vector<Block> blocks = blocksOf(document);

        std::string cmake = "cmake_minimum_required(VERSION 3.25)\nproject(tala_document_snippets LANGUAGES CXX)\n";
        std::string declarations;
        std::string program;  // a whole program, when the document shows one
        std::string bodies;
        std::string calls;
        std::string expected;
        int snippets = 0;
        const Block* previous = nullptr;
        for (const Block& block : blocks) {
            if (block.info == "cmake") {
                cmake += block.text;
            } else if (block.info == "cpp declarations") {
                declarations += lineDirective(block.line + 1, argv[1]) + block.text;
            } else if (block.info == "cpp" && block.text.find("int main(") != std::string::npos) {
                if (!program.empty() || snippets > 0) throw std::runtime_error("a whole program must be the only code");
                program = lineDirective(block.line + 1, argv[1]) + block.text;
                ++snippets;
            } else if (block.info == "cpp") {
                if (!program.empty()) throw std::runtime_error("a whole program must be the only code");
                ++snippets;
                const std::string name = "snippet" + std::to_string(snippets);
                bodies += "int " + name + "() {\n" + lineDirective(block.line + 1, argv[1]) + block.text +
                          "    return 0;\n}\n\n";
                calls += "    std::fputs(" + literal(marker(snippets, block.line)) + ", stdout);\n" +
                         "    std::fflush(stdout);\n" + "    if (" + name + "() != 0) return 1;\n" +
                         "    std::fflush(stdout);\n";
                expected += marker(snippets, block.line);
            } else if (block.info == "text") {
                if (previous == nullptr || !previous->info.starts_with("cpp") || previous->info == "cpp declarations") {
                    throw std::runtime_error("the output on line " + std::to_string(block.line) +
                                             " follows no snippet");
                }
                expected += block.text;
            }
            previous = &block;
        }
        if (snippets == 0) throw std::runtime_error("the document shows no code");

        const std::string made = "// Made by tala_extract_snippets from " + std::string(argv[1]) + ".\n";
        const std::string main =
            !program.empty() ? made + declarations + program
                             : made + "#include <cstdio>\n" + declarations + "\nnamespace tala_document_snippets {\n\n" +
                                   bodies + "}  // namespace tala_document_snippets\n\nint main() {\n" +
                                   "    using namespace tala_document_snippets;\n" + calls + "    return 0;\n}\n";
        const std::filesystem::path out(argv[2]);
        std::filesystem::create_directories(out);
        write(out / "CMakeLists.txt", cmake);
        write(out / "main.cpp", main);
        write(out / "expected.txt", expected);
        std::cout << argv[1] << ": " << snippets << " snippets\n";
        return 0;
    } catch (const std::exception& error) {
        std::cerr << argv[1] << ": " << error.what() << "\n";
        return 1;
    }
}
