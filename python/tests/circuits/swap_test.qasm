// Compares two one-qubit states.
OPENQASM 2.0;
include "qelib1.inc";
qreg anc[1];
qreg a[1];
qreg b[1];
ry(0.4) a[0];
rx(1.1) b[0];
h anc[0];
cswap anc[0],a[0],b[0];
h anc[0];
