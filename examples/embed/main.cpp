// Embeds the expression engine: loads a context, groups it by symbol and
// streams "SYMBOL,PRICE" lines through it, printing each row's output.
//
//   embed CONTEXT.xml [TRADES.csv] [STATE_DIR]
#include <vx_expressions/vx_expressions.h>

#include <fstream>
#include <iostream>
#include <string>

int main(int argc, char** argv) {
  if (argc < 2) {
    std::cerr << "usage: embed CONTEXT.xml [TRADES.csv] [STATE_DIR]\n";
    return 2;
  }
  try {
    vx_expressions::StreamOptions options;
    options.group_by = {"Symbol"};
    if (argc > 3) options.state_dir = argv[3];
    auto stream = vx_expressions::Stream::Open(argv[1], options);

    std::ifstream file;
    if (argc > 2) file.open(argv[2]);
    std::istream& in = argc > 2 ? static_cast<std::istream&>(file) : std::cin;
    auto show = [](const vx_expressions::Tuple& t, const char* field) {
      return t.Text(t.FieldIndex(field)).value_or("NULL");
    };
    std::string line;
    int64_t now = 0;
    while (std::getline(in, line)) {
      const size_t comma = line.find(',');
      if (comma == std::string::npos) continue;
      vx_expressions::Tuple& row = stream->Row();
      row.SetText(row.FieldIndex("Symbol"), line.substr(0, comma));
      row.SetText(row.FieldIndex("Price"), line.substr(comma + 1));
      if (!stream->Push(++now)) continue;
      const vx_expressions::Tuple& out = stream->Output(0);
      std::cout << line.substr(0, comma) << " price=" << show(out, "Price")
                << " previous=" << show(out, "PrevPrice") << " change=" << show(out, "Change")
                << "\n";
    }
    std::cout << "groups: " << stream->GroupCount() << "\n";
  } catch (const vx_expressions::Error& e) {
    std::cerr << "embed: " << e.what() << "\n";
    return 1;
  }
  return 0;
}
