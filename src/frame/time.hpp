// Processor-time measure of the chain.
#pragma once

double dvbTic();
double dvbToc();
