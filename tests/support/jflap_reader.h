// A reader of the JFLAP XML the engines' dumps write, independent of their code.
#ifndef VAEL_TESTS_SUPPORT_JFLAP_READER_H
#define VAEL_TESTS_SUPPORT_JFLAP_READER_H

#include <map>
#include <set>
#include <string>
#include <vector>

namespace vael_test {

// What a JFLAP file says: the initial state, the final ones, and per state
// the target of each edge's letters ("a|b|c"; "OTHER": the letters no other
// edge of the state reads). Tags must nest and close. False with a reason.
struct Automaton {
    int initial = -1;
    std::set<int> states, finals;
    std::map<int, std::map<std::string, int>> edges;
    int step(int at, char c) const {
        int other = -1;
        for (const auto &[read, to] : edges.at(at)) {
            if (read == "OTHER")
                other = to;
            for (size_t i = 0; read != "OTHER" && i < read.size(); i += 2)
                if (read[i] == c)
                    return to;
        }
        return other;
    }
};

inline bool read_jflap(const std::string &xml, Automaton &fa, std::string &why) {
    const std::string head = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<!--Created with JFLAP 6.0.--> ";
    if (xml.rfind(head, 0) != 0)
        return why = "head", false;
    std::vector<std::string> open;
    std::map<std::string, std::string> field;
    for (size_t at = head.size(), lt; (lt = xml.find('<', at)) != std::string::npos;) {
        const size_t gt = xml.find('>', lt);
        if (gt == std::string::npos)
            return why = "open tag", false;
        const std::string text = xml.substr(at, lt - at), tag = xml.substr(lt + 1, gt - lt - 1);
        at = gt + 1;
        if (tag.rfind("!--", 0) == 0)
            continue;
        if (tag.back() == '/') {
            field[tag.substr(0, tag.size() - 1)] = "";
        } else if (tag[0] != '/') {
            open.push_back(tag.substr(0, tag.find(' ')));
            if (open.back() == "state")
                field = {{"id", tag.substr(10, tag.find('"', 10) - 10)}};
        } else if (open.empty() || "/" + open.back() != tag) {
            return why = tag + " closes nothing open", false;
        } else {
            field[open.back()] = text;
            open.pop_back();
            if (tag == "/state" && fa.states.insert(std::stoi(field["id"])).second) {
                if (field.count("initial"))
                    fa.initial = std::stoi(field["id"]);
                if (field.count("final"))
                    fa.finals.insert(std::stoi(field["id"]));
            }
            if (tag == "/transition" &&
                !fa.edges[std::stoi(field["from"])].emplace(field["read"], std::stoi(field["to"])).second)
                return why = "an edge twice", false;
        }
    }
    return open.empty() ? true : (why = "<" + open.back() + "> never closed", false);
}

}  // namespace vael_test

#endif  // VAEL_TESTS_SUPPORT_JFLAP_READER_H
