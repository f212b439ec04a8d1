#include "kelvo/gml_writer.h"

#include <cstdio>

namespace kelvo {

namespace {

// A GML string: between quotes, which must not appear inside, so '"' and '&' become entities.
std::string Quote(std::string_view text) {
  std::string out = "\"";
  for (char c : text) {
    if (c == '"')
      out += "&quot;";
    else if (c == '&')
      out += "&amp;";
    else
      out += c;
  }
  out += '"';
  return out;
}

std::string ColorText(std::uint32_t rgb) {
  char buffer[8];
  std::snprintf(buffer, sizeof(buffer), "#%06X", static_cast<unsigned>(rgb & 0xffffffu));
  return buffer;
}

} // namespace

std::int64_t GmlDocument::AddNode(const GmlNodeAttribs& attribs, std::int64_t parent) {
  const auto n = static_cast<std::int64_t>(_nodes.size());
  if (parent >= n) parent = -1;
  _nodes.push_back(Node{attribs, parent, false});
  if (parent >= 0) _nodes[static_cast<std::size_t>(parent)].isGroup = true;
  return n;
}

void GmlDocument::AddEdge(std::int64_t source, std::int64_t target, const GmlEdgeTarget& edge) {
  _edges.push_back(Edge{source, target, edge});
}

std::string GmlDocument::ToText() const {
  std::string out = "graph [\n  directed 1\n";
  for (std::size_t i = 0; i < _nodes.size(); ++i) {
    const Node& node = _nodes[i];
    out += "  node [\n    id " + std::to_string(i) + "\n    label " + Quote(node.attribs.text) + "\n";
    if (node.isGroup) out += "    isGroup 1\n";
    if (node.parent >= 0) out += "    gid " + std::to_string(node.parent) + "\n";
    if (node.attribs.color) out += "    graphics [\n      fill " + Quote(ColorText(*node.attribs.color)) + "\n    ]\n";
    out += "  ]\n";
  }
  for (const Edge& edge : _edges) {
    out += "  edge [\n    source " + std::to_string(edge.source) + "\n    target " + std::to_string(edge.target) +
           "\n    label " + Quote(edge.edge.edgeType) + "\n";
    if (edge.edge.color) out += "    graphics [\n      fill " + Quote(ColorText(*edge.edge.color)) + "\n    ]\n";
    out += "  ]\n";
  }
  out += "]\n";
  return out;
}

Result<void> GmlDocument::Write(OutputStream& out) const {
  const std::string text = ToText();
  return out.Write(text.data(), text.size());
}

} // namespace kelvo
