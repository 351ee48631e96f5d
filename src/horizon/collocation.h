// horizon/collocation: the Lobatto node positions of a horizon step, the collocation matrix M
// that ties a differential variable's values at the nodes of a step to its time derivatives,
// and the byte code of the collocation rows, compiled once per node count.
//
// Collocation row of node i (i = 2..NODES) of a step of length dt:
//   x(node i) - x(node 1) - dt * sum over j = 2..NODES of M(i,j) * x'(node j) = 0
// M is the inverse of the Lobatto differentiation matrix with its first row and column removed.
// Its entries are single-precision roundings of the exact values, held in double precision;
// that reduced accuracy is deliberate and every horizon reproduces it.
#pragma once

#include <vector>

#include "lang/program.h"

namespace kx::horizon {

inline constexpr int kMinNodes = 2;
inline constexpr int kMaxNodes = 6;

// Stops with "Lobatto Order N is not available" and "Stopping. . ." unless 2 <= nodes <= 6.
void CheckNodes(int nodes);

// Positions of the nodes within a step as fractions of its length: 0, the interior Lobatto
// points, 1. Size `nodes`.
std::vector<double> LobattoPositions(int nodes);

// M(i,j) for i, j = 2..nodes, row-major, size (nodes-1)^2: entry (i,j) at (i-2)*(nodes-1)+(j-2).
std::vector<double> CollocationMatrix(int nodes);

// Local input placeholders of a collocation program; a copy maps each to a model column.
enum CollocationInput {
  kValueAtNode = 0,   // x(node i)
  kValueAtStart = 1,  // x(node 1)
  kStepLength = 2,    // dt of the step
  kFirstDerivative = 3,  // x'(node j) is placeholder kFirstDerivative + j - 2
};

// The compiled row of node i for one node count. `inputs[k]` is the placeholder read by local
// input k: coefficients that are exactly 0 leave their derivative out of the program.
struct CollocationProgram {
  lang::Program program;
  std::vector<int> inputs;
};

// Compiles the rows of nodes 2..nodes (index i-2), once per horizon.
std::vector<CollocationProgram> CompileCollocationRows(int nodes);

}  // namespace kx::horizon
