// A stiff nonlinear DAE shared by the horizon benchmarks: a cooled stirred-tank reactor with
// concentration and temperature balances and the rate and heat-generation algebraic equations.
#pragma once

namespace kx::bench {

inline constexpr const char* kReactorModel = R"(Model cstr
  Parameters
    q = 100
    v = 100
    rho = 1000
    cp = 0.239
    mdelh = 5e4
    er = 8750
    k0 = 7.2e10
    ua = 5e4
    tf = 350
    caf = 1
    tc = 300
  End Parameters
  Variables
    ca = 0.87, >= 0
    t = 324.5, >= 250, <= 500
    rate = 0
    qgen = 0
  End Variables
  Equations
    rate = k0*exp(-er/t)*ca
    qgen = mdelh*v*rate
    v*$ca = q*(caf - ca) - v*rate
    rho*cp*v*$t = q*rho*cp*(tf - t) + qgen + ua*(tc - t)
  End Equations
End Model
)";

}  // namespace kx::bench
