#include "objects/thermo_dippr.h"

#include <fmt/format.h>

#include <cmath>

#include "base/check.h"
#include "base/text.h"

namespace kx::objects {
namespace {

// A coefficient as text: exact, negative numbers in parentheses.
std::string Num(double v) {
  const std::string s = FormatReal(v);
  return v < 0 ? "(" + s + ")" : s;
}

// Text of SoftPositive(d) for an expression `d`.
std::string SoftPositiveText(const std::string& d) {
  return fmt::format("(({0})+sqrt(({0})^2+{1}))/2", d, Num(kSoftTau));
}

std::string PolynomialText(const Correlation& k, std::string_view t) {
  std::string s = Num(k.c[0]);
  for (int p = 1; p < 5; ++p) {
    if (k.c[p] != 0) s += fmt::format("+{}*{}^{}", Num(k.c[p]), t, p);
  }
  return "(" + s + ")";
}

std::string Form101Text(const Correlation& k, std::string_view t) {
  std::string s = fmt::format("{}+{}/{}+{}*log({})", Num(k.c[0]), Num(k.c[1]), t, Num(k.c[2]), t);
  if (k.c[3] != 0) s += fmt::format("+{}*{}^{}", Num(k.c[3]), t, Num(k.c[4]));
  return "exp(" + s + ")";
}

std::string Form102Text(const Correlation& k, std::string_view t) {
  return fmt::format("({}*{}^{}/(1+{}/{}+{}/{}^2))", Num(k.c[0]), t, Num(k.c[1]), Num(k.c[2]), t,
                     Num(k.c[3]), t);
}

std::string Form104Text(const Correlation& k, std::string_view t) {
  static const int kPowers[5] = {0, 1, 3, 8, 9};
  std::string s = Num(k.c[0]);
  for (int p = 1; p < 5; ++p) {
    if (k.c[p] != 0) s += fmt::format("+{}/{}^{}", Num(k.c[p]), t, kPowers[p]);
  }
  return "(" + s + ")";
}

std::string Form105Text(const Correlation& k, std::string_view t) {
  const std::string tau = SoftPositiveText(fmt::format("1-{}/{}", t, Num(k.c[2])));
  return fmt::format("({}/{}^(1+({})^{}))", Num(k.c[0]), Num(k.c[1]), tau, Num(k.c[3]));
}

std::string Form106Text(const Correlation& k, std::string_view t) {
  const std::string tr = fmt::format("({}/{})", t, Num(k.tc));
  const std::string tau = SoftPositiveText("1-" + tr);
  std::string e = Num(k.c[1]);
  for (int p = 2; p < 5; ++p) {
    if (k.c[p] != 0) e += fmt::format("+{}*{}^{}", Num(k.c[p]), tr, p - 1);
  }
  return fmt::format("({}*({})^({}))", Num(k.c[0]), tau, e);
}

std::string Form107Text(const Correlation& k, std::string_view t) {
  std::string s = Num(k.c[0]);
  if (k.c[1] != 0 && k.c[2] != 0) {
    s += fmt::format("+{0}*(({1}/{2})/sinh({1}/{2}))^2", Num(k.c[1]), Num(k.c[2]), t);
  }
  if (k.c[3] != 0 && k.c[4] != 0) {
    s += fmt::format("+{0}*(({1}/{2})/cosh({1}/{2}))^2", Num(k.c[3]), Num(k.c[4]), t);
  }
  return "(" + s + ")";
}

// Antiderivative of form 107: A T + B C coth(C/T) - D E tanh(E/T).
double Antiderivative107(const Correlation& k, double t) {
  double y = k.c[0] * t;
  if (k.c[1] != 0 && k.c[2] != 0) y += k.c[1] * k.c[2] / std::tanh(k.c[2] / t);
  if (k.c[3] != 0 && k.c[4] != 0) y -= k.c[3] * k.c[4] * std::tanh(k.c[4] / t);
  return y;
}

std::string Antiderivative107Text(const Correlation& k, std::string_view t) {
  std::string s = fmt::format("{}*{}", Num(k.c[0]), t);
  if (k.c[1] != 0 && k.c[2] != 0) {
    s += fmt::format("+{}/tanh({}/{})", Num(k.c[1] * k.c[2]), Num(k.c[2]), t);
  }
  if (k.c[3] != 0 && k.c[4] != 0) {
    s += fmt::format("-{}*tanh({}/{})", Num(k.c[3] * k.c[4]), Num(k.c[4]), t);
  }
  return s;
}

// Antiderivative of form 100: sum of c[p] T^(p+1) / (p+1).
double Antiderivative100(const Correlation& k, double t) {
  double y = 0;
  for (int p = 4; p >= 0; --p) y = (y + k.c[p] / (p + 1)) * t;
  return y;
}

std::string Antiderivative100Text(const Correlation& k, std::string_view t) {
  std::string s = fmt::format("{}*{}", Num(k.c[0]), t);
  for (int p = 1; p < 5; ++p) {
    if (k.c[p] != 0) s += fmt::format("+{}*{}^{}", Num(k.c[p] / (p + 1)), t, p + 1);
  }
  return s;
}

}  // namespace

double SoftPositive(double d) { return (d + std::sqrt(d * d + kSoftTau)) / 2; }

bool IsKnownForm(int form) {
  return form == 100 || form == 101 || form == 102 || form == 104 || form == 105 || form == 106 ||
         form == 107;
}

double Evaluate(const Correlation& k, double t) {
  const auto& c = k.c;
  switch (k.form) {
    case 100:
      return c[0] + t * (c[1] + t * (c[2] + t * (c[3] + t * c[4])));
    case 101:
      return std::exp(c[0] + c[1] / t + c[2] * std::log(t) + c[3] * std::pow(t, c[4]));
    case 102:
      return c[0] * std::pow(t, c[1]) / (1 + c[2] / t + c[3] / (t * t));
    case 104:
      return c[0] + c[1] / t + c[2] / std::pow(t, 3) + c[3] / std::pow(t, 8) +
             c[4] / std::pow(t, 9);
    case 105:
      return c[0] / std::pow(c[1], 1 + std::pow(SoftPositive(1 - t / c[2]), c[3]));
    case 106: {
      const double tr = t / k.tc;
      const double e = c[1] + tr * (c[2] + tr * (c[3] + tr * c[4]));
      return c[0] * std::pow(SoftPositive(1 - tr), e);
    }
    case 107: {
      const double a = c[2] / t, b = c[4] / t;
      double y = c[0];
      if (c[1] != 0 && c[2] != 0) y += c[1] * std::pow(a / std::sinh(a), 2);
      if (c[3] != 0 && c[4] != 0) y += c[3] * std::pow(b / std::cosh(b), 2);
      return y;
    }
  }
  KX_CHECK(false);
  return 0;
}

std::string ExpressionText(const Correlation& k, std::string_view t) {
  switch (k.form) {
    case 100:
      return PolynomialText(k, t);
    case 101:
      return Form101Text(k, t);
    case 102:
      return Form102Text(k, t);
    case 104:
      return Form104Text(k, t);
    case 105:
      return Form105Text(k, t);
    case 106:
      return Form106Text(k, t);
    case 107:
      return Form107Text(k, t);
  }
  KX_CHECK(false);
  return {};
}

double Integral(const Correlation& k, double t0, double t) {
  if (k.form == 100) return Antiderivative100(k, t) - Antiderivative100(k, t0);
  KX_CHECK(k.form == 107);
  return Antiderivative107(k, t) - Antiderivative107(k, t0);
}

std::string IntegralText(const Correlation& k, double t0, std::string_view t) {
  if (k.form == 100) {
    return fmt::format("({}-{})", Antiderivative100Text(k, t), Num(Antiderivative100(k, t0)));
  }
  KX_CHECK(k.form == 107);
  return fmt::format("({}-{})", Antiderivative107Text(k, t), Num(Antiderivative107(k, t0)));
}

}  // namespace kx::objects
