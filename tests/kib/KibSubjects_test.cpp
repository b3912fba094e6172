// SPDX-License-Identifier: MIT
// The bus subjects have one definition: the subject builders give exactly the shapes of
// kKibSubjectPatterns, the docs' subject table lists exactly those shapes, and every
// subject the docs mention anywhere has one of them.

#include "KibSubjects.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

std::string readDoc(const std::string& name) {
    std::ifstream in(std::string(NIMB_SOURCE_DIR) + "/" + name);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

std::set<std::string> patterns() {
    return {kKibSubjectPatterns.begin(), kKibSubjectPatterns.end()};
}

// The first column of the table under "## Subjects", backticks removed.
std::set<std::string> documentedSubjects(const std::string& doc) {
    std::set<std::string> subjects;
    std::istringstream lines(doc.substr(doc.find("\n## Subjects\n") + 1));
    std::string line;
    std::getline(lines, line);  // the heading itself
    bool inTable = false;
    while (std::getline(lines, line)) {
        if (line.rfind("## ", 0) == 0) break;
        if (line.rfind("| `", 0) != 0) {
            if (inTable && line.empty()) break;
            continue;
        }
        inTable = true;
        subjects.insert(line.substr(3, line.find('`', 3) - 3));
    }
    return subjects;
}

// A pattern as a regular expression: "<...>" stands for one name or "*".
std::regex patternRegex(const std::string& pattern) {
    const std::string dots = std::regex_replace(pattern, std::regex(R"(\.)"), R"(\.)");
    return std::regex(std::regex_replace(dots, std::regex("<[a-z]+>"), "[^.`]+"));
}

}  // namespace

TEST(KibSubjectsTest, BuildersGiveTheListedShapes) {
    const std::set<std::string> built = {KibSubjects::service("<satellite>", "<service>"),
                                         KibSubjects::service("<satellite>", "<service>", "<user>"),
                                         KibSubjects::ping("<satellite>"),
                                         KibSubjects::avail("<satellite>"),
                                         KibSubjects::discover("<satellite>"),
                                         KibSubjects::discover("*")};
    EXPECT_EQ(built, patterns());
    EXPECT_EQ(KibSubjects::avail("*"), "kib.avail.*");
}

TEST(KibSubjectsTest, DocsTableListsExactlyTheSubjects) {
    const std::string doc = readDoc("docs/bus-protocol.md");
    ASSERT_NE(doc.find("\n## Subjects\n"), std::string::npos) << "docs/bus-protocol.md missing";
    EXPECT_EQ(documentedSubjects(doc), patterns());
}

TEST(KibSubjectsTest, EverySubjectTheDocsMentionHasAListedShape) {
    std::vector<std::regex> shapes;
    for (const std::string& pattern : patterns()) shapes.push_back(patternRegex(pattern));
    const std::regex mention("`(kib\\.[^`\\s]*)`");
    int mentions = 0;
    for (const auto& entry : std::filesystem::directory_iterator(NIMB_SOURCE_DIR "/docs")) {
        if (entry.path().extension() != ".md") continue;
        const std::string name = entry.path().filename();
        const std::string doc = readDoc("docs/" + name);
        for (auto it = std::sregex_iterator(doc.begin(), doc.end(), mention);
             it != std::sregex_iterator(); ++it) {
            std::string subject = (*it)[1];
            // Names in the docs' prose are written "<name>" as well.
            subject = std::regex_replace(subject, std::regex("<name>"), "<satellite>");
            ++mentions;
            // A trailing ">" (one or more names) covers the pattern's remaining names.
            if (subject.size() > 2 && subject.compare(subject.size() - 2, 2, ".>") == 0) {
                subject.replace(subject.size() - 1, 1, "x");
                for (int more = 0; more < 2; ++more) {
                    if (std::any_of(shapes.begin(), shapes.end(), [&](const std::regex& shape) {
                            return std::regex_match(subject, shape);
                        }))
                        break;
                    subject += ".x";
                }
            }
            bool known = false;
            for (const std::regex& shape : shapes)
                known = known || std::regex_match(subject, shape);
            EXPECT_TRUE(known) << name << " mentions " << subject;
        }
    }
    EXPECT_GT(mentions, 10);
}
