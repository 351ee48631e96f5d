#include "horizon/collocation.h"

#include <cmath>
#include <string>

#include "base/report.h"
#include "base/text.h"
#include "lang/compiler.h"

namespace kx::horizon {

namespace {

// The collocation matrices as the program holds them: the single-precision rounding of each
// exact entry, written out in full double precision. The last entry for 5 nodes is zero up to
// rounding and is held as exactly 0.
constexpr double kM2[] = {1.0};

constexpr double kM3[] = {
    0.75, -0.25,  //
    1.0, 0.0,
};

constexpr double kM4[] = {
    0.43633899092674255, -0.2805469334125519,  0.12060113251209259,  //
    0.6138802766799927,  0.06366100162267685,  0.04606553539633751,  //
    0.6030056476593018,  0.23032766580581665,  0.1666666716337204,
};

constexpr double kM5[] = {
    0.2777777910232544,  -0.2023448795080185, 0.16866883635520935, -0.0714285746216774,  //
    0.3979758620262146,  0.0694444477558136,  0.063829705119133,   -0.03125,             //
    0.38688671588897705, 0.2340909093618393,  0.2777777910232544,  -0.0714285746216774,  //
    0.3888888955116272,  0.2222222238779068,  0.3888888955116272,  0.0,
};

constexpr double kM6[] = {
    0.19070778787136078, -0.14665807783603668, 0.13941115140914917, -0.1133117601275444,
    0.047323230654001236,  //
    0.2755719721317291,  0.059216611087322235, 0.05074004828929901, -0.049923479557037354,
    0.021779075264930725,  //
    0.2666909694671631,  0.19335581362247467,  0.25154590606689453, -0.11386451125144958,
    0.044887591153383255,  //
    0.2692159116268158,  0.17837804555892944,  0.3837272524833679,  0.0318630151450634,
    0.019343435764312744,  //
    0.2686598598957062,  0.18126453459262848,  0.37359383702278137, 0.1098150908946991,
    0.06666667014360428,
};

// Text of the row of node i: "xi - x1 - dt*(c2*d2 + ... )"; zero coefficients are left out.
std::string RowText(const std::vector<double>& m, int nodes, int i) {
  std::string sum;
  for (int j = 2; j <= nodes; ++j) {
    double c = m[(i - 2) * (nodes - 1) + (j - 2)];
    if (c == 0.0) continue;
    if (!sum.empty()) sum += c < 0 ? " - " : " + ";
    else if (c < 0) sum += "-";
    sum += fmt::format("{}*d{}", FormatReal(std::abs(c)), j);
  }
  return "xi - x1 - dt*(" + sum + ")";
}

// Maps the row text's names to their placeholders.
lang::Symbol ResolvePlaceholder(std::string_view name, bool /*derivative*/) {
  lang::Symbol s;
  s.kind = lang::Symbol::Kind::kColumn;
  if (name == "xi") {
    s.column = kValueAtNode + 1;
  } else if (name == "x1") {
    s.column = kValueAtStart + 1;
  } else if (name == "dt") {
    s.column = kStepLength + 1;
  } else {
    s.column = kFirstDerivative + (name[1] - '0') - 2 + 1;
  }
  return s;
}

}  // namespace

void CheckNodes(int nodes) {
  if (nodes >= kMinNodes && nodes <= kMaxNodes) return;
  Fatal({fmt::format("Lobatto Order {} is not available", nodes)}, "Stopping. . .");
}

std::vector<double> LobattoPositions(int nodes) {
  CheckNodes(nodes);
  // Interior points: roots of the derivative of the Legendre polynomial of degree nodes-1 on
  // [-1, 1], mapped to [0, 1].
  std::vector<double> roots;
  switch (nodes) {
    case 3:
      roots = {0.0};
      break;
    case 4:
      roots = {-1.0 / std::sqrt(5.0), 1.0 / std::sqrt(5.0)};
      break;
    case 5:
      roots = {-std::sqrt(3.0 / 7.0), 0.0, std::sqrt(3.0 / 7.0)};
      break;
    case 6: {
      double inner = std::sqrt(1.0 / 3.0 - 2.0 * std::sqrt(7.0) / 21.0);
      double outer = std::sqrt(1.0 / 3.0 + 2.0 * std::sqrt(7.0) / 21.0);
      roots = {-outer, -inner, inner, outer};
      break;
    }
    default:
      break;
  }
  std::vector<double> pos = {0.0};
  for (double r : roots) pos.push_back((1.0 + r) / 2.0);
  pos.push_back(1.0);
  return pos;
}

std::vector<double> CollocationMatrix(int nodes) {
  CheckNodes(nodes);
  switch (nodes) {
    case 2:
      return {std::begin(kM2), std::end(kM2)};
    case 3:
      return {std::begin(kM3), std::end(kM3)};
    case 4:
      return {std::begin(kM4), std::end(kM4)};
    case 5:
      return {std::begin(kM5), std::end(kM5)};
    default:
      return {std::begin(kM6), std::end(kM6)};
  }
}

std::vector<CollocationProgram> CompileCollocationRows(int nodes) {
  std::vector<double> m = CollocationMatrix(nodes);
  lang::Compiler compiler;
  std::vector<CollocationProgram> rows;
  for (int i = 2; i <= nodes; ++i) {
    std::vector<int> columns;
    CollocationProgram row;
    row.program = compiler.CompileEquation(i - 1, RowText(m, nodes, i), ResolvePlaceholder,
                                           &columns);
    for (int c : columns) row.inputs.push_back(c - 1);
    rows.push_back(std::move(row));
  }
  return rows;
}

}  // namespace kx::horizon
