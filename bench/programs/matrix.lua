local function multiply(a, b, n)
  local product = {}
  for i = 1, n do
    product[i] = {}
    for j = 1, n do
      local sum = 0
      for k = 1, n do sum = sum + a[i][k] * b[k][j] end
      product[i][j] = sum
    end
  end
  return product
end

local n, a, b = math.tointeger(arg[1]), {}, {}
for i = 1, n do
  a[i], b[i] = {}, {}
  for j = 1, n do a[i][j], b[i][j] = i + j, 2 * i - j end
end
local c, trace = multiply(a, b, n), 0
for i = 1, n do trace = trace + c[i][i] end
print(trace .. " " .. c[1][n] .. " " .. c[n][1])
