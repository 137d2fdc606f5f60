// Three bits of the phase 3/8 of a u1 gate.
OPENQASM 2.0;
include "qelib1.inc";
qreg e[3];
qreg eig[1];
x eig[0];
h e;
cu1(3*pi/4) e[2],eig[0];
cu1(3*pi/2) e[1],eig[0];
cu1(3*pi) e[0],eig[0];
swap e[0],e[2];
h e[2];
cu1(-pi/2) e[2],e[1];
h e[1];
cu1(-pi/4) e[2],e[0];
cu1(-pi/2) e[1],e[0];
h e[0];
