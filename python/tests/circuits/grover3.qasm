// Two rounds of search for 101 among eight.
OPENQASM 2.0;
include "qelib1.inc";
gate oracle a,b,c { x b; h c; ccx a,b,c; h c; x b; }
gate diffuse a,b,c { h a; h b; h c; x a; x b; x c; h c; ccx a,b,c; h c; x a; x b; x c; h a; h b; h c; }
qreg q[3];
h q;
oracle q[0],q[1],q[2];
diffuse q[0],q[1],q[2];
oracle q[0],q[1],q[2];
diffuse q[0],q[1],q[2];
