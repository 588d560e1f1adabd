#pragma once

// The shape of a package's payload, built from its index row by row before
// anything is written: what each path is, and where the package's own links lead.
// It refuses entries that would be written through a link or into a file
// of the package, entries that appear twice, and links that lead outside
// the target, alone or followed through each other.

#include "PackageIndex.h"

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

class PayloadTree
{
public:
    PayloadTree();
    ~PayloadTree();

    // The rows in index order; the tree keeps views into the index, which
    // must outlive it. Throws Refused.
    void add(const IndexRow& row);
    // Throws Refused for a symbolic link that, followed through the other
    // links of the package, leads outside the target.
    void checkLinks();
    // Every folder, listed or implied by a deeper entry, with the mode it
    // gets (the package's without set-id and sticky bits; 0755 when
    // implied); a folder comes before the folder holding it.
    std::vector<std::pair<std::string, unsigned>> folders() const;

private:
    struct Node;
    enum class Resolved { Inside, Outside, Loop };
    Resolved resolve(const std::string& path);
    static const Node* child(const Node* node, const std::string& name);

    std::unique_ptr<Node> root;
    std::vector<std::pair<std::string, const Node*>> links;
    std::uint64_t steps = 0;
};
