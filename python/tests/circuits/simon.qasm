// A two-to-one function of two bits with period 11.
OPENQASM 2.0;
include "qelib1.inc";
qreg a[2];
qreg f[2];
h a;
cx a[0],f[0];
cx a[0],f[1];
cx a[1],f[0];
cx a[1],f[1];
h a;
