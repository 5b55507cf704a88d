// The documents stay true to the code: every option the server's --help
// lists, every metric it exports and every limit it knows is in
// docs/operations.md, and every message of the dispatch table is in
// docs/protocol.md. The names are read from the binary and the code when
// the test runs, so a name added anywhere must be documented as it lands.

#include <cstdio>
#include <fstream>
#include <sstream>

#include <httplib.h>

#include "admission/limits.h"
#include "support/e2e_support.h"

namespace {

std::string readSource(const std::string& relative) {
    std::ifstream in(std::string(LOCKSTEP_SOURCE_DIR) + "/" + relative, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

std::string commandOutput(const std::string& command) {
    std::string out;
    FILE* pipe = popen(command.c_str(), "r");
    if (pipe == nullptr) return out;
    char buffer[4096];
    for (std::size_t n; (n = fread(buffer, 1, sizeof buffer, pipe)) > 0;) out.append(buffer, n);
    pclose(pipe);
    return out;
}

std::set<std::string> matches(const std::string& text, const std::regex& pattern, int group = 1) {
    std::set<std::string> found;
    for (std::sregex_iterator it(text.begin(), text.end(), pattern), end; it != end; ++it) found.insert((*it)[group]);
    return found;
}

// The name as a whole word: not part of a longer name.
bool mentions(const std::string& doc, const std::string& name) {
    const auto isNameChar = [](char c) { return std::isalnum(static_cast<unsigned char>(c)) || c == '_' || c == '-'; };
    for (std::size_t at = doc.find(name); at != std::string::npos; at = doc.find(name, at + 1)) {
        const bool before = at > 0 && isNameChar(doc[at - 1]) && doc[at - 1] != '-';
        const bool after = at + name.size() < doc.size() && isNameChar(doc[at + name.size()]);
        if (!before && !after) return true;
    }
    return false;
}

}  // namespace

TEST(Docs, OperationsNamesEveryOptionMetricAndLimit) {
    const std::string doc = readSource("docs/operations.md");
    ASSERT_FALSE(doc.empty());

    const std::set<std::string> options =
        matches(commandOutput(std::string(LOCKSTEP_SERVER_BIN) + " --help"), std::regex("(--[a-z][a-z0-9-]+)"));
    EXPECT_GE(options.size(), 4u);
    for (const std::string& option : options) EXPECT_TRUE(mentions(doc, option)) << option << " is not documented";

    const std::uint16_t httpPort = freePort(true);
    ServerProcess server(ServerOptions{.arguments = {"--metrics", "127.0.0.1:" + std::to_string(httpPort)}});
    ASSERT_TRUE(server.start());
    httplib::Client http("127.0.0.1", httpPort);
    auto res = http.Get("/metrics");
    ASSERT_TRUE(res);
    const std::set<std::string> metricNames = matches(res->body, std::regex("# TYPE ([a-zA-Z_:][a-zA-Z0-9_:]*) "));
    EXPECT_GE(metricNames.size(), 20u);
    for (const std::string& metric : metricNames) EXPECT_TRUE(mentions(doc, metric)) << metric << " is not documented";
    EXPECT_EQ(server.stop(SIGINT), 0);

    EXPECT_GE(limitNames().size(), 10u);
    for (const std::string& limit : limitNames()) EXPECT_TRUE(mentions(doc, limit)) << limit << " is not documented";
}

TEST(Docs, ProtocolNamesEveryMessageOfTheDispatchTable) {
    const std::string doc = readSource("docs/protocol.md");
    const std::string source = readSource("src/app/dispatch.cpp");
    const std::size_t begin = source.find("kRoutes[] = {");
    ASSERT_NE(begin, std::string::npos);
    const std::string table = source.substr(begin, source.find("};", begin) - begin);
    // A route names its message by its type (`CreateRoom::kType`) or, on a
    // channel without type words, by the record it decodes (`fromPlayer<Order, ...`).
    std::set<std::string> messages;
    const std::regex route(R"(\{k\w+Channel, (?:(\w+)::kType|kWholeChannel), (?:\w+<(\w+),)?)");
    for (std::sregex_iterator it(table.begin(), table.end(), route), end; it != end; ++it)
        messages.insert((*it)[1].matched ? (*it)[1].str() : (*it)[2].str());
    messages.erase("");
    EXPECT_GE(messages.size(), 20u);
    for (const std::string& message : messages) EXPECT_TRUE(mentions(doc, message)) << message << " is not documented";
}

// The texts the server sends are listed byte for byte: every quoted text of
// that section is in the source, the parts around its placeholders (NAME, N)
// each as they stand.
TEST(Docs, ProtocolTextsAreTheServersOwn) {
    const std::string doc = readSource("docs/protocol.md");
    const std::size_t begin = doc.find("## Texts the server sends");
    ASSERT_NE(begin, std::string::npos);
    const std::string section = doc.substr(begin, doc.find("\n## ", begin + 1) - begin);
    std::string source;
    const std::filesystem::path root = std::filesystem::path(LOCKSTEP_SOURCE_DIR);
    for (const auto& entry : std::filesystem::recursive_directory_iterator(root / "src")) {
        if (entry.is_regular_file()) source += readSource(entry.path().lexically_relative(root).string());
    }
    const std::set<std::string> texts = matches(section, std::regex("\"([^\"|]+)\""));
    EXPECT_GE(texts.size(), 15u);
    const std::regex placeholder("\\bNAME\\b|\\bN\\b");
    for (const std::string& text : texts) {
        for (std::sregex_token_iterator it(text.begin(), text.end(), placeholder, -1), end; it != end; ++it) {
            const std::string part = *it;
            if (!part.empty()) {
                EXPECT_NE(source.find(part), std::string::npos) << "\"" << text << "\": " << part;
            }
        }
    }
}
