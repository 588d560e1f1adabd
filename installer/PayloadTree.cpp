#include "PayloadTree.h"

#include "Limits.h"
#include "Refused.h"

#include <deque>
#include <functional>

struct PayloadTree::Node
{
    EntryType type = EntryType::Folder;
    bool listed = false; // an entry of its own, not only implied by a deeper one
    unsigned mode = 0755;
    std::string_view name; // for messages
    std::string_view link;
    std::map<std::string, std::unique_ptr<Node>> children;
};

namespace {

std::vector<std::string> split(std::string_view path)
{
    std::vector<std::string> components;
    size_t start = 0;
    while (start <= path.size()) {
        size_t end = path.find('/', start);
        if (end == std::string_view::npos)
            end = path.size();
        components.emplace_back(path.substr(start, end - start));
        start = end + 1;
    }
    return components;
}

// Following links more often than this in one path is a loop (as the
// kernel says, with its own limit of 40).
constexpr int kLinksInARow = 40;

} // namespace

PayloadTree::PayloadTree() : root(std::make_unique<Node>()) {}

PayloadTree::~PayloadTree() = default;

const PayloadTree::Node* PayloadTree::child(const Node* node, const std::string& name)
{
    if (!node)
        return nullptr;
    const auto found = node->children.find(name);
    return found == node->children.end() ? nullptr : found->second.get();
}

void PayloadTree::add(const IndexRow& row)
{
    const std::string name(row.path);
    const std::vector<std::string> components = split(row.path);
    Node* folder = root.get();
    std::string walked;
    for (size_t i = 0; i + 1 < components.size(); ++i) {
        walked += (walked.empty() ? "" : "/") + components[i];
        std::unique_ptr<Node>& next = folder->children[components[i]];
        if (!next)
            next = std::make_unique<Node>();
        else if (next->type == EntryType::Symlink) {
            if (resolve(walked) != Resolved::Inside)
                throw Refused("entry " + name + " leads outside the target through a link");
            throw Refused("entry " + name + " would be written through the link " + std::string(next->name));
        } else if (next->type != EntryType::Folder)
            throw Refused("entry " + name + " would be written into the file " + std::string(next->name));
        folder = next.get();
    }

    if (row.type == EntryType::Hardlink) {
        // To a file of the package written before it.
        const Node* target = root.get();
        for (const std::string& component : split(row.link))
            target = target && target->type == EntryType::Folder ? child(target, component) : nullptr;
        if (!target || (target->type != EntryType::File && target->type != EntryType::Hardlink))
            throw Refused("hard link " + name + " points to no file of the package: " + std::string(row.link));
    }

    std::unique_ptr<Node>& node = folder->children[components.back()];
    if (node) {
        if (node->type != EntryType::Folder || row.type != EntryType::Folder)
            throw Refused("entry " + name + " clashes with another entry of the package");
    } else
        node = std::make_unique<Node>();
    node->type = row.type;
    node->listed = true;
    node->mode = row.mode;
    node->name = row.path;
    node->link = row.link;

    if (row.type == EntryType::Symlink) {
        // On its own first: read from the folder it is in.
        const std::string parent = name.substr(0, name.size() - components.back().size());
        int depth = 0;
        bool outside = row.link.front() == '/';
        for (const std::string& component : split(parent + std::string(row.link))) {
            depth += component == ".." ? -1 : (component.empty() || component == ".") ? 0 : 1;
            outside |= depth < 0;
        }
        if (outside)
            throw Refused("link " + name + " points outside the target: " + std::string(row.link));
        links.emplace_back(name, node.get());
    }
}

PayloadTree::Resolved PayloadTree::resolve(const std::string& path)
{
    // Like realpath(3) over the package alone. Components the package does not
    // have are taken as plain folders: only its own links are followed.
    std::vector<const Node*> stack;
    std::deque<std::string> pending;
    for (std::string& component : split(path))
        pending.push_back(std::move(component));
    int followed = 0;
    while (!pending.empty()) {
        if (++steps > limits::kLinkSteps)
            throw Refused("the package's links are too tangled to check");
        const std::string component = std::move(pending.front());
        pending.pop_front();
        if (component.empty() || component == ".")
            continue;
        if (component == "..") {
            if (stack.empty())
                return Resolved::Outside;
            stack.pop_back();
            continue;
        }
        const Node* next = child(stack.empty() ? root.get() : stack.back(), component);
        if (next && next->type == EntryType::Symlink) {
            if (++followed > kLinksInARow)
                return Resolved::Loop;
            if (next->link.front() == '/')
                return Resolved::Outside;
            const std::vector<std::string> target = split(next->link);
            pending.insert(pending.begin(), target.begin(), target.end());
            continue;
        }
        stack.push_back(next);
    }
    return Resolved::Inside;
}

void PayloadTree::checkLinks()
{
    for (const auto& [path, node] : links) {
        switch (resolve(path)) {
        case Resolved::Inside:
            break;
        case Resolved::Outside:
            throw Refused("link " + path + " points outside the target: " + std::string(node->link));
        case Resolved::Loop:
            throw Refused("link " + path + " leads round in a circle: " + std::string(node->link));
        }
    }
}

std::vector<std::pair<std::string, unsigned>> PayloadTree::folders() const
{
    std::vector<std::pair<std::string, unsigned>> found;
    const std::function<void(const Node&, const std::string&)> visit = [&](const Node& node, const std::string& path) {
        for (const auto& [name, next] : node.children)
            if (next->type == EntryType::Folder)
                visit(*next, path.empty() ? name : path + '/' + name);
        if (!path.empty())
            found.emplace_back(path, node.listed ? node.mode & 0777 : 0755);
    };
    visit(*root, std::string());
    return found;
}
