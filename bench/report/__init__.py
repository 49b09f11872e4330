"""From the lines that the benchmark programs print to the tables and plots of docs/performance.md."""
