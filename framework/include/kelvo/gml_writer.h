#pragma once
// A writer of graphs in the GML text format: nodes with a label and a fill colour, directed edges
// with a type label, and optional grouping of nodes under a parent node.
//
// A graph adapter (GmlGraphInterface) tells the writer, for nodes of any type, their targets,
// their parent and their attributes; the writer collects nodes with Add and, on Write, numbers
// them, follows their targets (adding target nodes it was not given) and writes one "node" block
// per node and one "edge" block per target. REQUIRES: external synchronization.

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "kelvo/result.h"
#include "kelvo/url.h"

namespace kelvo {

struct GmlNodeAttribs {
  std::string text;
  // 24-bit RGB fill colour; none leaves the viewer's default.
  std::optional<std::uint32_t> color;
};

struct GmlEdgeTarget {
  std::string edgeType = "standard";
  std::optional<std::uint32_t> color;
};

// The plain document: numbered nodes and edges between them.
class GmlDocument {
public:
  // Adds a node and returns its number (0, 1, ...). parent is the number of a group node or -1.
  std::int64_t AddNode(const GmlNodeAttribs& attribs, std::int64_t parent = -1);
  void AddEdge(std::int64_t source, std::int64_t target, const GmlEdgeTarget& edge);
  // The GML text: graph [ directed 1 node [...] ... edge [...] ... ]. Labels are written between
  // quotes, with '"' and '&' as the entities &quot; and &amp;.
  std::string ToText() const;
  Result<void> Write(OutputStream& out) const;

private:
  struct Node {
    GmlNodeAttribs attribs;
    std::int64_t parent = -1;
    bool isGroup = false;
  };
  struct Edge {
    std::int64_t source, target;
    GmlEdgeTarget edge;
  };
  std::vector<Node> _nodes;
  std::vector<Edge> _edges;
};

// The adapter between a node type and the writer.
template <typename Node> class GmlGraphInterface {
public:
  using TargetReceiver = std::function<Result<bool>(const Node& target, const GmlEdgeTarget& edge)>;
  virtual ~GmlGraphInterface() = default;
  // Hands each target of node to receiver; stops when it returns false or an error.
  virtual Result<void> GetTargets(const Node& node, const TargetReceiver& receiver) const = 0;
  // The group node that contains node; none for a flat graph.
  virtual std::optional<Node> GetParent(const Node& node) const = 0;
  virtual GmlNodeAttribs GetNodeAttribs(const Node& node) const = 0;
};

// Collects nodes of type Node (hashable with Hash, comparable with ==) and writes them with their
// edges.
template <typename Node, typename Hash = std::hash<Node>> class GmlWriter {
public:
  // Adds node once; later calls with the same node do nothing.
  void Add(const Node& node) {
    if (_index.emplace(node, _order.size()).second) _order.push_back(node);
  }
  std::size_t GetCount() const { return _order.size(); }

  Result<GmlDocument> Build(const GmlGraphInterface<Node>& graph) const {
    GmlDocument document;
    std::unordered_map<Node, std::int64_t, Hash> numbers;
    std::vector<Node> pending = _order;
    std::unordered_set<Node, Hash> queued(_order.begin(), _order.end());
    std::unordered_set<Node, Hash> inProgress;
    // Nodes first, parents before their children, targets that were not added appended.
    std::function<Result<std::int64_t>(const Node&)> number = [&](const Node& node) -> Result<std::int64_t> {
      if (auto it = numbers.find(node); it != numbers.end()) return it->second;
      std::int64_t parent = -1;
      if (std::optional<Node> p = graph.GetParent(node)) {
        if (!inProgress.insert(node).second) return IllegalStateError("The parents of a GML node form a cycle.");
        Result<std::int64_t> parentNumber = number(*p);
        inProgress.erase(node);
        if (parentNumber.HasError()) return parentNumber.GetError();
        parent = *parentNumber;
      }
      const std::int64_t n = document.AddNode(graph.GetNodeAttribs(node), parent);
      numbers.emplace(node, n);
      return n;
    };
    for (std::size_t i = 0; i < pending.size(); ++i) {
      const Node node = pending[i];
      KELVO_ASSIGN_OR_RETURN(const std::int64_t source, number(node));
      std::vector<std::pair<Node, GmlEdgeTarget>> targets;
      KELVO_RETURN_ON_ERROR(graph.GetTargets(node, [&](const Node& target, const GmlEdgeTarget& edge) -> Result<bool> {
        targets.emplace_back(target, edge);
        return true;
      }));
      for (auto& [target, edge] : targets) {
        KELVO_ASSIGN_OR_RETURN(const std::int64_t t, number(target));
        document.AddEdge(source, t, edge);
        if (queued.insert(target).second) pending.push_back(target);
      }
    }
    return document;
  }

  Result<void> Write(OutputStream& out, const GmlGraphInterface<Node>& graph) const {
    KELVO_ASSIGN_OR_RETURN(GmlDocument document, Build(graph));
    return document.Write(out);
  }

private:
  std::unordered_map<Node, std::size_t, Hash> _index;
  std::vector<Node> _order;
};

} // namespace kelvo
