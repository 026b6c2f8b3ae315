#include "harness/json_schema.h"

#include "formats/file.h"
#include "harness/source_tree.h"
#include "harness/started_board.h"

#include <cstdio>
#include <memory>
#include <nlohmann/json.hpp>

namespace fixture {

std::string SchemaErrors(const std::vector<std::string> &objects) {
    constexpr const char *kScript = "import json, sys, jsonschema\n"
                                    "schema = json.load(open(sys.argv[1]))\n"
                                    "check = jsonschema.Draft7Validator(schema)\n"
                                    "for text in json.load(open(sys.argv[2])):\n"
                                    "    for error in check.iter_errors(json.loads(text)):\n"
                                    "        print('%s: %s in %.600s' % (list(error.path), error.message, text))\n";
    const TemporaryDirectory directory;
    WriteFile(directory.path() / "check.py", std::string_view(kScript));
    WriteFile(directory.path() / "objects", nlohmann::json(objects).dump());
    // The package of the distribution, whatever other interpreters there are.
    const std::string command = "/usr/bin/python3 -W ignore '" + (directory.path() / "check.py").string() + "' '" +
                                SourceFile("docs/report.schema.json").string() + "' '" +
                                (directory.path() / "objects").string() + "' 2>&1";
    // One run for all objects, since starting the interpreter takes far longer than a check.
    const std::unique_ptr<std::FILE, int (*)(std::FILE *)> pipe(popen(command.c_str(), "r"), pclose);
    std::string errors;
    char part[512];
    while (pipe && std::fgets(part, sizeof part, pipe.get())) errors += part;
    return pipe ? errors : "no python3 to check with";
}

} // namespace fixture
